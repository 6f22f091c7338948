# Sourced by the other scripts: the Debian packages that each step needs, in one place.

packages_to_build=(g++ cmake ninja-build libsqlite3-dev libcli11-dev nlohmann-json3-dev libsystemd-dev
  libncurses-dev libzstd-dev libmd-dev)
packages_to_test=("${packages_to_build[@]}" libbenchmark-dev clang libclang-rt-14-dev clang-format clang-tidy black libgtest-dev
  binutils procps python3 tmux ncurses-term zsh fish strace faketime sqlite3
  prometheus victoria-metrics curl python3-prometheus-client mandoc groff-base
  systemd udev dbus chromium fonts-dejavu-core dpkg-dev file e2fsprogs mount cppcheck)
packages_to_package=("${packages_to_build[@]}" dpkg-dev file lintian)
packages_to_bench=("${packages_to_build[@]}" libbenchmark-dev pkg-config libproc2-dev libgtop2-dev procps python3 smem htop
  atop tmux)
# For another processor: libraries, fetched by an apt of its own, and its compiler, which is a program of this machine. Its
# tests need GoogleTest's library as well.
packages_to_cross=(libsqlite3-dev libcli11-dev nlohmann-json3-dev libsystemd-dev libsystemd0
  libncurses-dev libncursesw6 libtinfo6 libzstd-dev libzstd1 libmd-dev libmd0
  libgtest-dev)
packages_for_arm64=(g++-aarch64-linux-gnu)
packages_for_armhf=(g++-arm-linux-gnueabihf)
packages_for_i386=(g++-i686-linux-gnu)
# Emulators, and what makes the disks of the devices that they are; and what each device has beside us.
packages_for_lab=(qemu-system-x86 seabios acpica-tools mmdebstrap cpio kmod e2fsprogs python3 binutils)
packages_in_lab=(systemd systemd-sysv udev dbus busybox-static libsystemd0 libncursesw6)

say() { printf '\n== %s\n' "$*"; }

# A package whose tool alone is wanted: it is not to serve on the machine that is tested on.
without_services=(-o 'DPkg::Options::=--path-exclude=/lib/systemd/system/prometheus*'
  -o 'DPkg::Options::=--path-exclude=/etc/init.d/prometheus*'
  -o 'DPkg::Options::=--path-exclude=/lib/systemd/system/victoria*'
  -o 'DPkg::Options::=--path-exclude=/etc/init.d/victoria*'
  -o 'DPkg::Options::=--path-exclude=/lib/systemd/system/atop*'
  -o 'DPkg::Options::=--path-exclude=/etc/init.d/atop*' -o 'DPkg::Options::=--path-exclude=/etc/cron.d/atop')

# Installs those of the named packages that are missing; anyone but root is told which they are.
install_missing() {
  local package missing=()
  for package in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  if [ "$(id -u)" != 0 ]; then
    printf 'These packages are missing, and only root can install them:\n  apt-get install %s\n' "${missing[*]}" >&2
    exit 1
  fi
  say "Installing ${missing[*]} (a minute or two on a fresh machine)"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${without_services[@]}" "${missing[@]}" >/dev/null
}

# Configures and builds a preset, saying only what goes wrong: build PRESET [TARGET ...]
build() {
  local preset=$1 targets=()
  shift
  [ $# -gt 0 ] && targets=(--target "$@")
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" "${targets[@]}" -- --quiet
}

