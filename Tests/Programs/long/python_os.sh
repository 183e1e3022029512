# Python's own tests of os.
# packages: python3 libpython3.11-testsuite
exec python3 "$PROGRAMS/long/run_suite.py" test_os 2> /dev/null
