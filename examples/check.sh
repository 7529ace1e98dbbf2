# Sourced by scripts/check-install with $prefix (the installation) and $examples (a count): builds
# each example outside the tree against the installed files and runs it against the installed
# video server emulator.
work=$(mktemp -d)
cc examples/c/controller.c $(pkg-config --cflags --libs zqhandler) -Wl,-rpath,"$prefix/lib" \
  -o "$work/controller-c"
# The daemon's event header, installed for C programs: the listener compiles against it alone.
cc -Wall -Wextra -Werror examples/c/gpi_monitor.c -I"$prefix/include" -o "$work/gpi_monitor"
cmake -S examples/cpp -B "$work/cpp" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cpp" >/dev/null
"$prefix/bin/devsim" udp 127.0.0.1 0 >"$work/devsim.log" 2>&1 &
devsim=$!
port=
for _ in $(seq 200); do # 10 s at most
  port=$(sed -n 's/^listening on udp 127.0.0.1:\([0-9]*\).*/\1/p' "$work/devsim.log")
  [ -n "$port" ] && break
  sleep 0.05
done
[ -n "$port" ] || { echo "install: the emulator did not start" >&2; kill $devsim; exit 1; }
for controller in "$work/controller-c" "$work/cpp/controller"; do
  said=$("$controller" 127.0.0.1 "$port") || true
  grep -q '^playing at [0-9][0-9]:' <<<"$said" || {
    echo "install: $controller did not play against the emulator" >&2
    kill $devsim
    exit 1
  }
  examples=$((examples + 1))
done
kill $devsim
rm -rf "$work"
