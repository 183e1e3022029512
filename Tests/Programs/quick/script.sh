# A terminal of its own for the program: forkpty, poll on a signal's descriptor.
# packages: bsdutils util-linux
script -qec 'tty > /dev/null && echo a terminal; stty size; exit 6' /dev/null < /dev/null; echo "$?"
script -qc 'for i in 1 2 3 4 5; do echo $i; sleep 0.01; done; seq 3000 | md5sum' log < /dev/null > /dev/null; sed '1d;$d' log | tr -d '\r' | grep -v '^$'
echo 'echo typed; exit' | script -qc 'sh' typed > /dev/null; grep -c typed typed
setsid -w sh -c 'ps -o sid= -p $$ | grep -qx " *$$" && echo leader'; flock lock -c 'flock -n lock true; echo $?'; ionice -c3 true; taskset 1 true; echo $?
(flock 9; echo locked) 9> lock; nsenter --help > /dev/null; getopt ab: -a -b c; logger --no-act -s -t x said 2>&1 | sed 's/.*x/x/'; prlimit --nofile --noheadings -o SOFT -p $$ > /dev/null; echo $?
exit 0
