# A server with threads for slow deeds, children that save, and pipelines of many clients.
# packages: redis-server redis-tools
gone() { for i in $(seq 1200); do kill -0 "$1" 2> /dev/null || return; sleep 0.05; done; echo still; }
redis-server --unixsocket "$PWD/s" --port 0 --dir "$PWD" --save '' --daemonize no --io-threads 2 --appendonly yes > server.log 2>&1 & server=$!
cli() { redis-cli -s s "$@"; }
for i in $(seq 300); do cli ping 2> /dev/null | grep -q PONG && break; sleep 0.05; done
redis-benchmark -s s -q -n 20000 -c 20 -P 8 -t set,get,incr,lpush,rpop,sadd,hset,mset 2>&1 | tr '\r' '\n' | grep 'requests per second' | sed 's/:.*//'
cli set k v; cli get k; cli incr n; cli lpush l 1 2 3; cli lrange l 0 -1; cli eval 'return redis.call("get", "k")' 0
cli bgsave; for i in $(seq 200); do cli info persistence | grep -q 'rdb_bgsave_in_progress:0' && break; sleep 0.05; done; cli info persistence | grep -o 'rdb_last_bgsave_status:[a-z]*'
cli bgrewriteaof; for i in $(seq 200); do cli info persistence | grep -q 'aof_rewrite_in_progress:0' && break; sleep 0.05; done; cli info persistence | grep -o 'aof_last_bgrewrite_status:[a-z]*'
(sleep 0.3; cli publish c hello > /dev/null; sleep 0.2; cli lpush q item > /dev/null) & cli blpop q 5; wait $!
cli flushall async; cli dbsize; cli set left over; cli shutdown save 2>&1; wait $server; echo "server $?"; redis-check-rdb dump.rdb | grep -c 'Checksum OK'
redis-server --unixsocket "$PWD/s" --port 0 --dir "$PWD" --daemonize yes --pidfile "$PWD/pid" --logfile "$PWD/log2" > /dev/null; for i in $(seq 300); do cli ping 2> /dev/null | grep -q PONG && break; sleep 0.05; done
cli get left; pid=$(cat pid); cli shutdown nosave; gone "$pid"; [ -e pid ] && echo "left a pid file"; grep -ciE 'error|crash|warning.*fail' server.log log2
exit 0
