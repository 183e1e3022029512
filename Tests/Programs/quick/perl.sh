# Forks, pipes, sockets, signals, select, locks and directories as perl makes them.
# packages: perl
perl -we '
use strict; use IO::Select; use Socket; use POSIX; use Fcntl qw(:flock :seek); use File::Temp; $| = 1;
my @pids; for my $i (1 .. 20) { my $pid = fork; if (!$pid) { exit $i } push @pids, $pid } my $sum = 0; for (@pids) { waitpid $_, 0; $sum += $? >> 8 } print "$sum\n";
pipe my $r, my $w; if (!fork) { close $r; print $w "line $_\n" for 1 .. 5000; exit 0 } close $w; my $n = 0; $n++ while <$r>; wait; print "$n $?\n";
socketpair my $a, my $b, AF_UNIX, SOCK_STREAM, 0; if (!fork) { close $a; while (sysread $b, my $x, 100) { syswrite $b, uc $x } exit 7 } close $b;
syswrite $a, "hello"; my $s = IO::Select->new($a); print scalar($s->can_read(5)), "\n"; sysread $a, my $got, 100; print "$got\n"; shutdown $a, 1; wait; print $? >> 8, "\n";
my $hits = 0; $SIG{ALRM} = sub { $hits++ }; require Time::HiRes; Time::HiRes::setitimer(Time::HiRes::ITIMER_REAL(), 0.01, 0.01); select undef, undef, undef, 0.02 while $hits < 5; Time::HiRes::setitimer(Time::HiRes::ITIMER_REAL(), 0); print "alarms\n";
open my $lock, ">", "lock"; flock $lock, LOCK_EX; if (!fork) { open my $l, "<", "lock"; print flock($l, LOCK_EX | LOCK_NB) ? "got" : "busy", "\n"; exit } wait; close $lock;
print `echo back`; print $? >> 8, "\n"; system "exit 3"; print $? >> 8, "\n"; open my $p, "-|", "seq 4"; print <$p>; close $p; open $p, "|-", "wc -c"; print $p "x" x 70000; close $p;
my $pid = fork; if (!$pid) { exec "/nonexistent" or exit 66 } waitpid $pid, 0; print $? >> 8, "\n"; $pid = fork; if (!$pid) { POSIX::setsid(); kill 9, $$ } waitpid $pid, 0; print $? & 127, "\n";
eval { local $SIG{ALRM} = sub { die "late\n" }; alarm 1; sleep 10; }; print $@; opendir my $d, "/etc"; my @all = readdir $d; print @all > 5 ? "many\n" : "few\n"; $0 = "renamed"; printf "%s\n", open(my $x, "<", "/nonexistent") ? 1 : $!; exit 0;'
perl -e 'use threads; my @t = map { my $i = $_; threads->create(sub { my $s = 0; $s += $_ for 1 .. 10000; `true`; $s + $i }) } 1 .. 6; print join(" ", map { $_->join } @t), "\n"'
