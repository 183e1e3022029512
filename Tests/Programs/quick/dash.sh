# The shell that moves its own descriptors to 10 and above.
# packages: dash coreutils
exec dash -c '
exec 3>three 9>nine; echo one >&3; echo two >&9; exec 3>&- 9>&-; cat three nine
i=0; while [ $i -lt 60 ]; do (exit $((i % 5))); printf "%d" $?; i=$((i + 1)); done; echo
seq 500 | { while read n; do [ $((n % 100)) = 0 ] && echo $n; done; }
f() { ( trap "echo inner" EXIT; exit 3 ); echo $?; }; f
{ echo out; echo err >&2; } 2>&1 | sort
sleep 20 & kill $!; wait $!; echo "wait $?"
trap "echo term" TERM; kill -TERM $$
cat <<END
here $(echo document) and `echo another`
END
x=$(cat /nonexistent 2>&1); echo "$? $x"
sh -c "exit 9"; echo $?; exec 1>&-; true'
