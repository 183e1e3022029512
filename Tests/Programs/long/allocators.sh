# Other allocators beside the agent, before and behind it in the list.
# packages: libtcmalloc-minimal4 libmimalloc2.0 xz-utils python3 perl
lib=/usr/lib/x86_64-linux-gnu; own=$LD_PRELOAD
seq 300000 > numbers
for allocator in $lib/libtcmalloc_minimal.so.4 $lib/libmimalloc.so.2; do
    for preload in "$allocator${own:+:$own}" "${own:+$own:}$allocator"; do
        run() { LD_PRELOAD=$preload "$@"; }
        echo "${allocator##*/}"
        run /usr/bin/xz -T2 -1 --block-size=200KiB -kc numbers | md5sum; run /usr/bin/sort --parallel=2 -n -S 2M -r numbers | md5sum
        run /usr/bin/python3 -c 'import threading, subprocess, os
done = []
def work(): done.append(sum(len(str(i) * 50) for i in range(20000)))
ts = [threading.Thread(target=work) for _ in range(8)]; [t.start() for t in ts]; [t.join() for t in ts]; print(done)
print(subprocess.run(["sh", "-c", "exit 5"]).returncode, os.fork() or os._exit(3), os.wait()[1] >> 8) if False else print(subprocess.run(["sh", "-c", "exit 5"]).returncode)
pid = os.fork()
if not pid: os._exit(3)
print(os.waitpid(pid, 0)[1] >> 8)'
        run /usr/bin/perl -e 'my @p; for (1..30) { my $p = fork; exit $_ unless $p; push @p, $p } my $s = 0; for (@p) { waitpid $_, 0; $s += $? >> 8 } print "$s\n"; my %h = map { $_ => "x" x 100 } 1..50000; print scalar(keys %h), "\n"'
        run /bin/bash -c 'x=$(seq 100 | tail -n 1); (exit 4); echo $? $x'
    done
done
exit 0
