# A master with workers, thread pools' files, reloads and a graceful end, under two load generators.
# packages: nginx-light wrk apache2-utils
gone() { for i in $(seq 1200); do kill -0 "$1" 2> /dev/null || return; sleep 0.05; done; echo still; }
mkdir -p html logs && seq 20000 > html/numbers && echo small > html/index.html && chmod -R a+rX .
cat > nginx.conf <<END
worker_processes 2; pid $PWD/pid; error_log $PWD/logs/error info; user root;
events { worker_connections 256; }
http { access_log off; client_body_temp_path $PWD/t1; proxy_temp_path $PWD/t2; fastcgi_temp_path $PWD/t3; uwsgi_temp_path $PWD/t4; scgi_temp_path $PWD/t5; sendfile on; gzip on; gzip_types text/plain; default_type text/plain;
 server { listen unix:$PWD/s; listen 127.0.0.1:18123; root $PWD/html; location /proxy/ { proxy_pass http://unix:$PWD/s:/; } } }
END
nginx -p "$PWD" -c "$PWD/nginx.conf" -t 2>&1 | grep -oE 'syntax is ok|test is successful'; nginx -p "$PWD" -c "$PWD/nginx.conf" -e logs/start; echo "start $?"
for i in $(seq 200); do [ -s pid ] && break; sleep 0.05; done; master=$(cat pid)
python3 - <<'END'
import http.client, zlib
for path, headers in (("/", {}), ("/numbers", {}), ("/numbers", {"Accept-Encoding": "gzip"}), ("/proxy/numbers", {}), ("/nosuch", {})):
    c = http.client.HTTPConnection("127.0.0.1", 18123, timeout=20); c.request("GET", path, headers=headers); r = c.getresponse(); b = r.read()
    if r.getheader("Content-Encoding") == "gzip": b = zlib.decompress(b, 31)
    print(path, r.status, len(b))
END
ab -q -n 4000 -c 16 -k http://127.0.0.1:18123/ | grep -E 'Complete|Failed|Non-2xx|Document Length'; ab -q -n 500 -c 8 http://127.0.0.1:18123/proxy/numbers | grep -E 'Complete|Failed|Non-2xx|Document Length'
wrk -t2 -c16 -d2s http://127.0.0.1:18123/numbers > wrk.out; grep -E 'Socket errors|Non-2xx' wrk.out; grep -c 'requests in' wrk.out
nginx -p "$PWD" -c "$PWD/nginx.conf" -s reload 2> signalled; echo "reload $?"; for i in $(seq 100); do grep -q 'exited with code 0' logs/error && break; sleep 0.05; done; ab -q -n 500 -c 8 http://127.0.0.1:18123/ | grep -E 'Complete|Failed'
nginx -p "$PWD" -c "$PWD/nginx.conf" -s quit 2> signalled; gone "$master"
grep -E '\[(alert|emerg|crit|error)\]' logs/error | grep -v nosuch | sed 's/.*\] //'; grep -o 'exited with code [0-9]*' logs/error | sort | uniq -c
exit 0
