# Sourced by scripts/check-install with $prefix (the installation) and $examples (a count): builds
# each example outside the tree against the installed files and runs it against the installed
# video server emulator.
work=$(mktemp -d)
# Each public header compiles alone in C; the C example includes only the one that gives them all.
for header in "$prefix"/include/zqhandler/*.h; do
  echo "#include <zqhandler/${header##*/}>" |
    cc -x c -std=c11 -Wall -Wextra -Werror -fsyntax-only $(pkg-config --cflags zqhandler) - || {
    echo "install: <zqhandler/${header##*/}> does not compile alone" >&2
    exit 1
  }
done
cc -std=c11 -Wall -Wextra -Werror examples/c/controller.c $(pkg-config --cflags --libs zqhandler) \
  -Wl,-rpath,"$prefix/lib" -o "$work/controller-c"
# The daemon's event header, installed for C programs: the listener compiles against it alone.
cc -std=c11 -Wall -Wextra -Werror examples/c/gpi_monitor.c -I"$prefix/include" -o "$work/gpi_monitor"
cmake -S examples/cpp -B "$work/cpp" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cpp" >/dev/null
"$prefix/bin/devsim" udp 127.0.0.1 0 --also tcp:0 >"$work/devsim.log" 2>&1 &
devsim=$!
port=
for _ in $(seq 200); do # 10 s at most
  port=$(sed -n 's/^listening on udp 127.0.0.1:\([0-9]*\).*/\1/p' "$work/devsim.log")
  [ -n "$port" ] && break
  sleep 0.05
done
tcp_port=$(sed -n 's/^listening on .*tcp 127.0.0.1:\([0-9]*\).*/\1/p' "$work/devsim.log")
[ -n "$port" ] && [ -n "$tcp_port" ] || {
  echo "install: the emulator did not start" >&2
  kill $devsim
  exit 1
}
# Each must play; the C one then reads the Louth status and, by TCP, the disk information, and
# says so last.
check_example() {
  local expected=$1 said
  shift
  said=$("$@") || true
  grep -q "$expected" <<<"$said" || {
    echo "install: $1 did not do its part against the emulator: $said" >&2
    kill $devsim
    exit 1
  }
}
check_example '^disk information fetched' "$work/controller-c" 127.0.0.1 "$port" "$tcp_port"
check_example '^playing at [0-9][0-9]:' "$work/cpp/controller" 127.0.0.1 "$port"
examples=$((examples + 2))
kill $devsim
rm -rf "$work"
