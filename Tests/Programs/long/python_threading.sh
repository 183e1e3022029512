# Python's own tests of threading.
# packages: python3 libpython3.11-testsuite
exec python3 "$PROGRAMS/long/run_suite.py" test_threading 2> /dev/null
