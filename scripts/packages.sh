# Debian packages the project needs, and the function that installs the missing ones (sourced).

# What building and running the programs needs.
BUILD_PACKAGES=(g++ make cmake iproute2 util-linux procps pkg-config libcpp-httplib-dev)
# What the tests, the cross build, the fuzzers and the benchmarks add.
TEST_PACKAGES=(
  pkg-config googletest libgtest-dev libgmock-dev libbenchmark-dev
  g++-mips-linux-gnu qemu-user
  clang libclang-rt-14-dev
  mandoc
  tshark
  chromium nodejs
  valgrind
  python3 python3-pytest
)

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# install_missing PACKAGE...: apt-get install of those not installed yet.
install_missing() {
  local missing=() p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "== installing: ${missing[*]}"
  as_root apt-get update -qq &&
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
      "${missing[@]}"
}
