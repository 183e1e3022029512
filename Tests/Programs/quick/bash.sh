# Redirections onto fixed numbers, subshells, pipes, coprocesses, traps, job control, here-documents.
# packages: bash coreutils
exec 3> three 4< /etc/passwd 10> ten 255>&1 2>&1
echo to three >&3; echo to ten >&10; read -r line <&4; echo "${line%%:*}"
exec {first}> first {second}> second; echo "$first $second"; echo a >&"$first"; echo b >&"$second"
ls -l /proc/self/fd | grep -o ' [0-9]* -> .*' | grep -v '^ 5[0-9][0-9] ' | sed 's/:\[.*\]//; s| /proc/.*| proc|; s|/.*/work/|work/|; s|/dev/.*|dev|' 
exec 3>&- 10>&- {first}>&- {second}>&-
cat three ten first second
for i in $(seq 60); do (exit $((i % 7))); printf '%d' $?; done; echo
seq 2000 | while read -r n; do echo $((n * n)); done | sort -rn | head -n 3
set -o pipefail; (exit 5) | (exit 0); echo "pipefail $?"
coproc UPPER { tr a-z A-Z; }
echo through a coprocess >&"${UPPER[1]}"; exec {UPPER[1]}>&-; cat <&"${UPPER[0]}"; wait $UPPER_PID; echo "coproc $?"
trap 'echo usr1' USR1; kill -USR1 $$; trap 'echo child' CHLD; (exit 1) & wait $!; echo "wait $?"; trap - CHLD
sleep 30 & kill -TERM $!; wait $!; echo "terminated $?"
{ (kill -KILL $BASHPID); } 2> /dev/null; echo "killed $?"
diff <(seq 5) <(seq 4 | cat); echo "diff $?"
cat <<< "$(printf 'x%.0s' {1..70000})" | wc -c
set -m; sleep 0.05 & fg > /dev/null; echo "fg $?"; set +m
for i in {1..8}; do (sleep 0.0$i; exit "$i") & pids+=($!); done
for pid in "${pids[@]}"; do wait "$pid"; printf '%d ' $?; done; echo
mapfile -t lines < /etc/passwd; ((${#lines[@]} > 5)) && echo mapfile
exec -a renamed bash -c 'echo "$0"; trap "echo exit trap" EXIT; exec 0<&- 1>&2 ; echo last; exit 0'
