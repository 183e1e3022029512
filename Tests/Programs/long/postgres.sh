# A database that forks for each client, with semaphores, shared memory, latches and signals.
# packages: postgresql-15 postgresql-client-15
# user: postgres
gone() { for i in $(seq 1200); do kill -0 "$1" 2> /dev/null || return; sleep 0.05; done; echo still; }
bin=/usr/lib/postgresql/15/bin; mkdir data; sockets=$(mktemp -d)
$bin/initdb -D data -N -A trust -U me --locale C > init.log 2>&1; echo "initdb $?"
printf "unix_socket_directories = '%s'\nlisten_addresses = ''\nfsync = off\nmax_connections = 20\nlog_min_messages = warning\n" "$sockets" >> data/postgresql.conf
$bin/pg_ctl -D data -w -t 120 -l "$PWD/data/log" start > start.log 2>&1; echo "start $?"
export PGHOST=$sockets PGUSER=me PGDATABASE=postgres; sql() { psql -XAtq "$@"; }
$bin/pgbench -i -q -s 1 2> /dev/null > /dev/null; echo "filled $?"; $bin/pgbench -n -c 6 -j 2 -t 100 2>&1 | grep -E 'processed|failed'
sql -c 'select count(*) from pgbench_history' -c 'select sum(abalance) - (select sum(delta) from pgbench_history) from pgbench_accounts' -c 'create index on pgbench_accounts(abalance)' -c 'vacuum full analyze pgbench_accounts'
sql -c 'set max_parallel_workers_per_gather = 2; set parallel_setup_cost = 0; set parallel_tuple_cost = 0; set min_parallel_table_scan_size = 0; select count(*) from pgbench_accounts where aid % 3 = 0'
(sql -c 'select pg_sleep(0.3); notify a' ) & sql -c 'select pg_advisory_lock(1)' -c 'select 1/0' 2>&1; wait $!; sql -c "set statement_timeout = 100; select pg_sleep(20)" 2>&1; sql -c 'select nosuch' 2>&1 | head -n 1
$bin/pg_dump -T 'pgbench*' > /dev/null; echo "dump $?"; sql -c checkpoint -c 'select pg_terminate_backend(pg_backend_pid())' 2>&1 | head -n 1
$bin/pg_ctl -D data -w restart -m fast > restart.log 2>&1; echo "restart $?"; sql -c 'select count(*) from pgbench_tellers'
pid=$(head -n 1 data/postmaster.pid); $bin/pg_ctl -D data -w stop -m fast > stop.log 2>&1; echo "stop $?"; gone "$pid"; $bin/pg_controldata data | grep 'cluster state'
grep -E 'PANIC|LOG: .*(crash|terminated by)' data/log; rm -r "$sockets"; exit 0
