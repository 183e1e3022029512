# Python's own tests of select.
# packages: python3 libpython3.11-testsuite
exec python3 "$PROGRAMS/long/run_suite.py" test_select 2> /dev/null
