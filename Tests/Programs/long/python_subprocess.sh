# Python's own tests of subprocess, but the two that expect a program to have no descriptors but those it opened.
# packages: python3 libpython3.11-testsuite
left_out="test_close_fds_when_max_fd_is_lowered test_pass_fds_redirected"
exec python3 "$PROGRAMS/long/run_suite.py" test_subprocess $left_out 2> /dev/null
