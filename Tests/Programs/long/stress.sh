# Each stressor checks what it gets back from the calls that the agent interposes. Left out are those that take the
# memory, the processes or the growth of files from the agent as well, and those that fail natively at times.
# packages: stress-ng
run() { # stressor instances operations
    stress-ng --verify --oomable --temp-path . -t 10 --"$1" "$2" --"$1"-ops "$3" > "$1.log" 2>&1
    echo "$1 $?"; grep -E 'fail(ed)?[: ]|error:|unexpected|inconsisten' "$1.log" | grep -vE 'failed: 0|: 0 fail' | sed 's/\[[0-9]*\]//; s/  */ /g'
}
for each in futex:2:2000 sem:2:2000 sem-sysv:2:2000 fork:2:150 vfork:2:150 clone:2:60 daemon:1:30 poll:2:200 epoll:2:500 \
    nanosleep:2:200 clock:2:50 sleep:1:50 flock:2:500 lockf:2:500 locka:2:500 lockofd:2:500 pipe:2:20000 pipeherd:1:50 \
    sock:2:100 sockpair:2:200 sockabuse:2:50 sockmany:1:20 udp:2:500 mmap:2:4 mremap:2:3 madvise:1:20 msync:1:200 \
    timer:1:300 timerfd:1:300 itimer:1:100 sigsuspend:2:500 sigq:2:500 sigabrt:1:20 sigchld:1:50 sigfd:1:500 sigpending:1:500 sigrt:1:300 \
     sigio:1:4 sigpipe:1:50 sigfpe:1:200 sigtrap:1:500 signest:1:20 pthread:1:400 tee:1:100 dup:2:300 sendfile:2:20 splice:2:500 vm-splice:1:500 \
    copy-file:1:5 hdd:1:50 io:1:20 aio:1:50 aiol:1:50 iomix:1:100 readahead:1:100 fallocate:1:2 fcntl:1:100 file-ioctl:1:20 fstat:1:50 dentry:1:50 dir:1:50 \
    eventfd:2:500 fifo:2:500 msg:2:500 mq:2:500 kill:1:500 wait:1:200 zombie:1:50 switch:2:500 yield:1:500 nice:1:5 prctl:1:50 ptrace:1:50 \
     schedpolicy:1:50 set:1:20 get:1:20 getrandom:1:200 close:1:200 link:1:5 symlink:1:5 rename:1:500 \
    seek:1:200 revio:1:20 vdso:1:2000 sysinfo:1:20 procfs:1:2 rawsock:1:20 netdev:1:20 env:1:5 shm:1:5 shm-sysv:1:5 tsc:1:2000 wcs:1:50 str:1:50 \
    context:1:50 stack:1:5 mlock:1:50 mincore:1:200 membarrier:1:100 brk:1:200 bad-altstack:1:20 fault:1:200 userfaultfd:1:50 \
    access:1:20 chdir:1:20 chmod:1:50 chown:1:50 utime:1:200 xattr:1:20 loadavg:1:20 usersyscall:1:200 vm-addr:1:5 key:1:20 fiemap:1:200; do
    IFS=: read -r name instances ops <<< "$each"; run "$name" "$instances" "$ops"
done
exit 0
