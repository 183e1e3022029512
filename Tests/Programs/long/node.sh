# Node with its thread pool, worker threads, children, sockets and timers.
# packages: nodejs
cat > program.js <<'END'
const fs = require('fs'), cp = require('child_process'), net = require('net'), zlib = require('zlib'), crypto = require('crypto');
const { Worker, isMainThread, parentPort, workerData } = require('worker_threads');
if (!isMainThread) {
    let sum = 0; for (let i = 0; i < 3e6; i++) sum = (sum + i * workerData) % 1000003;
    parentPort.postMessage(sum);
} else {
    const once = (f) => new Promise(f);
    (async () => {
        console.log((await Promise.all([1, 2, 3, 4].map((n) => once((done) => new Worker(__filename, { workerData: n }).on('message', done))))).join());
        const data = Buffer.alloc(2e6, 'some text '); await fs.promises.writeFile('data', data);
        console.log((await Promise.all([...Array(20)].map(() => fs.promises.readFile('data')))).every((d) => d.equals(data)));
        console.log((await once((done) => zlib.gzip(data, (e, z) => zlib.gunzip(z, (e, d) => done(d))))).equals(data));
        console.log((await once((done) => crypto.pbkdf2('a', 'b', 20000, 32, 'sha256', (e, k) => done(k)))).toString('hex'));
        console.log(cp.execSync('seq 3 | tr "\\n" -').toString(), cp.spawnSync('sh', ['-c', 'exit 7']).status, cp.spawnSync('/nonexistent').error.code);
        console.log(await once((done) => { const c = cp.spawn('cat'); let all = ''; c.stdout.on('data', (d) => all += d); c.on('close', (code) => done(all.length + ' ' + code)); for (let i = 0; i < 3000; i++) c.stdin.write('line ' + i + '\n'); c.stdin.end(); }));
        const child = cp.spawn('sleep', ['30']); child.kill(); console.log(await once((done) => child.on('exit', (c, s) => done(c + ' ' + s))));
        const forked = cp.fork('child.js'); forked.send(21); console.log(await once((done) => forked.on('message', done)));
        console.log(await once((done) => { const s = net.createServer((c) => c.pipe(c)).listen('socket', () => { const c = net.connect('socket'); let got = 0; c.on('data', (d) => { got += d.length; if (got === 1e6) { c.end(); s.close(); done(got); } }); c.write(Buffer.alloc(1e6)); }); }));
        process.on('SIGUSR2', () => console.log('signal')); process.kill(process.pid, 'SIGUSR2'); await once((done) => setTimeout(done, 50));
        fs.watch('.', (e, f) => {}).close(); process.exitCode = 0;
    })();
}
END
echo "process.on('message', (m) => { process.send(m * 2); process.disconnect(); })" > child.js
node program.js && cp data once && echo 'process.abort()' > abort.js && (ulimit -c 0; { node abort.js; } > /dev/null 2>&1; echo "$?"); node -e 'process.exit(3)'; echo $?; node -e 'while(1);' & sleep 0.3; kill $!; { wait $!; } 2> /dev/null; echo $?
exit 0
