# Archives with sparse and long names, through pipes and compressors.
# packages: tar gzip bzip2 xz-utils
mkdir -p in/deep/$(printf 'long%.0s' {1..40}) && seq 20000 > in/deep/numbers && truncate -s 3M in/sparse && echo x | dd of=in/sparse bs=1 seek=2000000 conv=notrunc 2> /dev/null
ln -s deep/numbers in/link; ln in/deep/numbers in/hard; for i in $(seq 150); do echo "$i" > "in/f$i"; done; mkfifo in/fifo; find in -exec touch -hd @1000000 {} +
for how in '' z j J; do tar -c${how}Sf a.tar$how --sort=name --owner=0 --group=0 in; rm -rf out; mkdir out; tar -xSf "a.tar$how" -C out; diff -r --no-dereference in out 2>&1 | grep -v fifo; tar -tvf "a.tar$how" | md5sum; done
tar -cf - in | tar -xf - -C out; tar -df a.tar; echo "compared $?"; tar --append -f a.tar Makefile 2>&1 | head -n 1; tar -xf a.tar --to-command='wc -c' in/deep/numbers
tar -cf - --use-compress-program='gzip -n' in | tail -c +1 | gzip -dc | tar -tf - | wc -l; tar -xf /dev/null; head -c 5000 a.tarz | tar -xzf - -C out 2>&1 | tail -n 1; tar -xf a.tar nosuch 2>&1 | head -n 1
mkdir result && cp -a out/in result/
exit 0
