# Python's own tests of signal.
# packages: python3 libpython3.11-testsuite
exec python3 "$PROGRAMS/long/run_suite.py" test_signal 2> /dev/null
