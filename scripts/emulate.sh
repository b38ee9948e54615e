#!/bin/sh
# emulate.sh SYSROOT PROGRAM ARGUMENT...: runs a program of the target. The program finds itself under the name of a
# script beside it that runs it once more: tests that start themselves again (death tests) then work as they do where
# the kernel runs such programs.
set -eu
sysroot=$1
program=$2
shift 2

again=$program.again
if [ ! -e "$again" ]; then
    # Complete at once: another test may be starting the same program.
    self=$(readlink -f "$0")
    cat >"$again.$$" <<TEXT
#!/bin/sh
exec "$self" "$sysroot" "$program" "\$@"
TEXT
    chmod 755 "$again.$$"
    mv "$again.$$" "$again"
fi
exec qemu-arm -L "$sysroot" -0 "$again" "$program" "$@"
