# A server that daemonises, with a terminal for each window.
# packages: tmux
t() { tmux -S "$PWD/s" -f /dev/null "$@"; }
t new-session -d -x 80 -y 24 'sh' && echo started; t send-keys 'echo $((20 + 22)) > answer; seq 3; tty > /dev/null && echo term >> answer' Enter
for i in $(seq 200); do grep -q term answer 2> /dev/null && break; sleep 0.05; done; cat answer; t split-window -d 'echo split > split; sleep 30'; for i in $(seq 200); do [ -s split ] && break; sleep 0.05; done; t list-panes -F '#{pane_index} #{pane_width}'
t new-window -d 'exit 3'; t set-buffer text; t show-buffer; echo; t run-shell 'echo ran > ran'; cat ran; t wait-for -S x; t capture-pane -p | grep -c 3
t kill-server; for i in $(seq 200); do t ls 2> /dev/null || break; sleep 0.05; done; t ls 2>&1 | sed 's/ on .*//; s/(.*//; s|/.*||'
exit 0
