# Python's own tests of mmap.
# packages: python3 libpython3.11-testsuite
exec python3 "$PROGRAMS/long/run_suite.py" test_mmap 2> /dev/null
