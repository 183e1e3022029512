# Three processes over socket pairs, with fuzzy and in-place transfers.
# packages: rsync
mkdir -p in/sub && for i in $(seq 60); do seq "$i" $((i * 40)) > "in/sub/f$i"; done; seq 50000 > in/large; ln -s large in/link; truncate -s 1M in/sparse; find in -exec touch -hd @1000000 {} +
rsync -a --stats in/ out/ | grep -E 'Number of (regular|files|created)|Total (file|transferred)'; diff -r in out && echo same
sed -i 's/^77$/seventy/' in/large; rsync -ai --no-t --checksum --no-whole-file in/ out/; rsync -a --delete --inplace --no-whole-file -z in/ out/; diff -r in out && echo same
rm in/sub/f1; rsync -a --delete -i in/ out/; rsync -aS in/sparse sp; rsync -a nosuch out/ 2>&1 | head -n 1; rsync -a --rsync-path=rsync -e 'f() { shift; "$@"; }; f' in/ /dev/null/x 2> /dev/null; echo $?
cat > shell <<'END'
#!/bin/sh
shift; exec "$@"
END
chmod +x shell; rsync -a -e ./shell in/ host:"$PWD"/remote/ && diff -r in remote && echo remote; mkdir result; cp -a out result
exit 0
