#!/bin/bash
# The tests on processors that this machine is not:
#   tests/portable/portable.sh i386 ...
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/../.."
. scripts/packages.sh

unit_tests=(daemon_test snapshot_test collectors_test libtop_test linux_devices_test linux_kernel_test regions_test
  state_test waketide_test)
programs=(volornd waketide volornctl volornd_in_any_year volornctl_in_any_year)
system_tests=(portable/years daemon/daily_run volornctl/volornctl)

# prepare PROCESSOR PACKAGE ...
prepare() {
  local compiler=packages_for_$1[@]
  install_missing "${packages_to_build[@]}" "${!compiler}" "${@:2}"
  scripts/cross-root "$1"
}

# run_system_tests FOLDER: with the programs there
run_system_tests() {
  local name
  for name in "${system_tests[@]}"; do
    PYTHONPATH=tests/system /usr/bin/python3 "tests/${name}_test.py" "$1"
  done
}

# By this machine's own processor and kernel. A 32-bit program that looks at its 64-bit processes is part of it.
i386() {
  local name
  prepare i386 python3
  build i386 "${unit_tests[@]}" real_machine_test "${programs[@]}"
  for name in "${unit_tests[@]}" real_machine_test; do build/i386/"$name" --gtest_brief=1; done
  run_system_tests build/i386
}

for name in "$@"; do
  say "On $name"
  "$name"
done
