# A small program of many files: preprocessed, compiled, archived and linked by a parallel make.
# packages: gcc make binutils
for i in $(seq 8); do
    { echo '#include <stdio.h>'; echo '#include <string.h>'; echo '#include <stdlib.h>'
      for j in $(seq 20); do echo "int f${i}_$j(int x) { char b[64]; snprintf(b, 64, \"%d\", x + $j); return atoi(b) + (int)strlen(b); }"; done; } > "f$i.c"
done
{ for i in $(seq 8); do echo "int f${i}_1(int);"; done
  echo '#include <stdio.h>'; echo 'int main(void) { int s = 0;'; for i in $(seq 8); do echo "s += f${i}_1($i);"; done
  echo 'printf("%d\n", s); return 0; }'; } > main.c
cat > Makefile <<'END'
OBJECTS := $(patsubst f%.c,f%.o,$(sort $(wildcard f*.c)))
all: prog
prog: main.o libf.a ; @$(CC) -o $@ $^
libf.a: $(OBJECTS) ; @$(AR) crD $@ $^
%.o: %.c ; @$(CC) -O2 -g -ffile-prefix-map=$(CURDIR)=. -c -o $@ $<
check: prog ; @$(MAKE) --no-print-directory -s inner && ./prog
inner: ; @echo inner made
.PHONY: all check inner
END
make -j2 check || exit 1
mkdir result && cp prog ./*.o libf.a result
touch f3.c && make -s -j2 && make -q && echo "up to date"
gcc -O2 -pipe -flto=2 -o lto main.c f*.c && ./lto; gcc -c nosuch.c 2>&1 | head -n 1; echo 'int x = ;' > bad.c; gcc -c bad.c 2>&1 | head -n 2
make -s nosuchtarget; echo "$?"; printf "all: a b\na: ; @sleep 0.1; false\nb: ; @sleep 0.2; echo b\n" > keep.mk; make -s -k -j2 -f keep.mk 2>&1 | sort; nm libf.a 2>/dev/null | grep -c ' T '
exit 0
