# Python's own tests of socket, but those of sockets between virtual machines: these hang natively on some hosts.
# packages: python3 libpython3.11-testsuite
exec python3 "$PROGRAMS/long/run_suite.py" test_socket ThreadedVSOCKSocketStreamTest 2> /dev/null
