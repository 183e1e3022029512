# Python's own tests of fcntl.
# packages: python3 libpython3.11-testsuite
exec python3 "$PROGRAMS/long/run_suite.py" test_fcntl 2> /dev/null
