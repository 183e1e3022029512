# A database in rollback and in write-ahead mode, two processes at a time, and a damaged file.
# packages: sqlite3
run() { sqlite3 -bail "$@"; }
run a.db 'create table t(a integer primary key, b text); with recursive n(x) as (select 1 union all select x+1 from n where x < 20000) insert into t select x, hex(x*x) from n; create index i on t(b); select count(*), sum(length(b)) from t;'
run a.db 'pragma journal_mode=wal; begin; update t set b = b || "x" where a % 7 = 0; commit; select count(*) from t where b like "%x";'
for i in 1 2 3 4; do (for j in $(seq 15); do run -cmd '.timeout 20000' a.db "insert into t(b) values ($i$j);" > /dev/null || echo failed; done) & done; wait
run a.db 'select count(*) from t; pragma integrity_check; pragma wal_checkpoint(truncate); vacuum;'
run a.db 'create table s as select b from t order by b, a; drop table t; create table t(a integer primary key, b text); insert into t(b) select b from s; drop table s; vacuum;'; run a.db .dump | md5sum; run a.db '.backup b.db'; run b.db 'pragma mmap_size=1000000; select max(length(b)) from t; attach "a.db" as o; select count(*) from o.t join t using(a);'
run b.db 'pragma journal_mode=delete; begin exclusive; delete from t where a > 100; rollback; select count(*) from t;'
run a.db 'select nosuch from t;' 2>&1; echo $?; head -c 3000 a.db > c.db; run c.db 'select * from t;' 2>&1 | head -n 1; mkdir result; run b.db .dump > result/b
exit 0
