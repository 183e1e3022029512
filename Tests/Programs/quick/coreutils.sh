# The everyday tools on a small tree: copies, links, sorting, splitting, sums, timeouts.
# packages: coreutils findutils grep sed mawk
mkdir -p result/a/b/c && cd result || exit 1
seq 30000 > a/numbers; cp -a a copy; ln -s a/numbers link; ln a/numbers hard; cp --sparse=always a/numbers sparse
dd if=/dev/zero of=a/b/zeros bs=4096 count=64 2> /dev/null; dd if=a/numbers of=a/b/part bs=1 skip=5 count=300 2>&1 | head -n 2
split -l 7000 a/numbers part-; cat part-* | cmp - a/numbers && echo split
sort -R --random-source=a/numbers a/numbers | sort -n --parallel=2 -S 1M | cmp - a/numbers && echo sorted
shuf -n 20 --random-source=a/numbers a/numbers | sort | tee tee1 tee2 | md5sum
sha256sum a/numbers | cut -c1-64; sum a/numbers; cksum a/numbers; b2sum < a/numbers
find . -type f -empty -o -type l | sort; find . -type f -print0 | sort -z | xargs -0 -n 3 -P 2 wc -c | sort
paste -d, a/numbers a/numbers | join -t, - <(paste -d, a/numbers a/numbers) 2> /dev/null | tail -n 1
tac a/numbers | head -n 1; nl a/numbers | tail -n 1; fold -w 3 a/numbers | uniq -c | sort -rn | head -n 2; od -An -tx1 a/b/part | tail -n 2
head -c 100000 /dev/urandom | wc -c; tail -n 2 a/numbers; sleep 0.2 & tail -f --pid=$! -n 2 a/numbers
timeout 0.2 sleep 10; echo "timeout $?"; { timeout -s KILL 0.2 sleep 10; } 2> killed; echo "timeout $?"; rm killed
nohup true 2>&1 | sed 's/.*ignoring/ignoring/'; nice -n 5 nice; env -i PATH="$PATH" printenv PATH > /dev/null; stdbuf -o0 echo unbuffered
mktemp -d made.XXXX > name; rmdir "$(cat name)"; rm name; mkfifo fifo; (seq 5 > fifo &) ; wc -l < fifo; rm fifo
truncate -s 100K big; fallocate -l 50K alloc; stat -c '%s %b' alloc; du -s --apparent-size a; chmod 640 big; chown "$(id -u)" big; touch -d @0 big
install -m 755 a/b/part installed; mv installed moved; readlink -f link | sed 's|.*/||'; realpath --relative-to=. a/b; expr 3 \* 4; factor 360; date -u -d @0 +%F
echo "a b c" | awk '{ print $3; system("echo from awk"); "seq 2" | getline x; print x; close("seq 2") }'; grep -rc 99 a | sort; sed -i 's/^1/one/' a/numbers; rm -rf copy; ls -R
cat /nonexistent; echo $?; ls /root/../nonexistent; echo $?; yes | head -n 1000000 | tail -n 1; true > /dev/full; echo x > /dev/full; echo $?
exit 0
