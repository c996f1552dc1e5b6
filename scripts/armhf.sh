#!/usr/bin/env bash
# Cross-builds libzelta for 32-bit ARM Linux (arm-linux-gnueabihf) and runs the
# whole test suite under qemu-arm:
#   1. installs the cross compiler and qemu-user when missing (needs root);
#   2. makes a sysroot from Debian's armhf packages, unpacked with dpkg-deb into
#      $BUILD_ARMHF/sysroot and kept there, so later runs skip this step;
#   3. configures $BUILD_ARMHF with cmake/toolchain-armhf.cmake, builds, reports
#      the library's size against its budget (scripts/size-report.sh), runs ctest.
# Environment: BUILD_ARMHF (default build-armhf), JOBS (default: nproc),
# ARMHF_TEST_TIMEOUT (seconds for tests that set none themselves, default 900),
# CTEST_ARGS (extra ctest arguments, e.g. "-R logging"),
# ZELTA_SIZE_BUDGET (bytes the stripped libzelta.so may take, default 200000).
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD
build=${BUILD_ARMHF:-build-armhf}
case $build in /*) ;; *) build=$src/$build ;; esac
jobs=${JOBS:-$(nproc)}
triplet=arm-linux-gnueabihf
sysroot=$build/sysroot

say() { echo "armhf: $*"; }

# 1. Host tools. install-deps.sh also brings snmp: the wire tests run the
# host's snmpget/snmpset against the emulated agent.
scripts/install-deps.sh g++-$triplet binutils-$triplet qemu-user
for tool in $triplet-g++ $triplet-readelf qemu-arm apt-get dpkg-deb cmake ctest pkg-config; do
  command -v "$tool" >/dev/null || { echo "armhf: $tool not found after installing packages" >&2; exit 1; }
done

# 2. The sysroot. Net-SNMP's -dev package is not co-installable for two
# architectures, so nothing armhf is installed on the host: a private APT state
# in the build tree reads the host's package sources for armhf only, and the
# host's dpkg architecture list and package lists stay as they were.
packages=(
  # Net-SNMP and everything its libraries load
  libsnmp-dev libsnmp40 libperl5.36 libwrap0 libwrap0-dev
  libsensors5 libsensors-dev libpci3 libpci-dev libudev1 zlib1g
  libssl-dev libssl3 libnsl2 libtirpc3 libgssapi-krb5-2 libkrb5-3 libk5crypto3
  libkrb5support0 libcom-err2 libkeyutils1
  # C and C++ runtime for qemu; headers, crt files and libc.so for linking
  # come with the cross compiler
  libc6 libcrypt1 libgcc-s1 libstdc++6
  # the test framework (static libraries and CMake package files)
  libgtest-dev libgmock-dev
)
stamp_want=$(printf '%s\n' "${packages[@]}" | sha256sum | cut -c1-16)
stamp=$sysroot/.zelta-sysroot
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$stamp_want" ]; then
  say "sysroot up to date: $sysroot"
else
  say "making the sysroot in $sysroot"
  apt_dir=$build/armhf-apt
  rm -rf "$apt_dir" "$sysroot" "$sysroot.new"
  mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial" "$apt_dir/debs" "$sysroot.new"
  : >"$apt_dir/status"
  apt_opts=(-q -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::State::status=$apt_dir/status"
    -o "Dir::Cache=$apt_dir/cache" -o APT::Architecture=armhf -o APT::Architectures::=armhf)
  # As root, APT would hand downloads to the _apt user, who may not write here.
  [ "$(id -u)" -eq 0 ] && apt_opts+=(-o APT::Sandbox::User=root)
  # A source without armhf indexes (or a mirror mid-sync) makes update report
  # an error; what counts is whether every package downloads below.
  if ! apt-get "${apt_opts[@]}" update >"$apt_dir/update.log" 2>&1; then
    grep '^[EW]:' "$apt_dir/update.log" | head -5 | sed 's/^/armhf: apt-get update: /' || true
    say "going on with the package indexes that did download"
  fi
  (cd "$apt_dir/debs" && apt-get "${apt_opts[@]}" download "${packages[@]}") >"$apt_dir/download.log" 2>&1 || {
    cat "$apt_dir/download.log" >&2
    echo "armhf: could not download the armhf packages" >&2
    exit 1
  }
  for deb in "$apt_dir"/debs/*.deb; do dpkg-deb -x "$deb" "$sysroot.new"; done
  # Not needed for building or running; under qemu -L a sysroot folder also
  # hides the host's folder of the same name, so keep the tree small.
  rm -rf "$sysroot.new"/usr/share/{doc,man,info,lintian,locale} "$sysroot.new"/tmp
  # The trap daemon's library (and the MariaDB client it loads) is left out:
  # drop its link so that nothing can link against a missing file.
  rm -f "$sysroot.new/usr/lib/$triplet/libnetsnmptrapd.so"

  # Every library that Net-SNMP, OpenSSL and libstdc++ load must be in the
  # sysroot, or linking and the loader under qemu fail far less clearly.
  declare -A seen=()
  queue=(libnetsnmp.so.40 libnetsnmpagent.so.40 libnetsnmpmibs.so.40 libnetsnmphelpers.so.40
    libssl.so.3 libstdc++.so.6)
  missing=()
  while [ ${#queue[@]} -gt 0 ]; do
    lib=${queue[0]}
    queue=("${queue[@]:1}")
    [ -n "${seen[$lib]:-}" ] && continue
    seen[$lib]=1
    file=""
    for dir in lib/$triplet usr/lib/$triplet lib usr/lib; do
      if [ -e "$sysroot.new/$dir/$lib" ]; then file=$sysroot.new/$dir/$lib; break; fi
    done
    if [ -z "$file" ]; then missing+=("$lib"); continue; fi
    while read -r needed; do queue+=("$needed"); done < <($triplet-readelf -d "$file" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
  done
  if [ ${#missing[@]} -gt 0 ]; then
    echo "armhf: the sysroot lacks ${missing[*]}: add their packages to scripts/armhf.sh" >&2
    exit 1
  fi
  echo "$stamp_want" >"$sysroot.new/.zelta-sysroot"
  mv "$sysroot.new" "$sysroot"
  rm -rf "$apt_dir"
  say "sysroot ready ($(du -sh "$sysroot" | cut -f1))"
fi

# 3. Configure, build, test. The toolchain file sets the same pkg-config
# variables for cmake; these cover anything else this script starts.
export PKG_CONFIG_LIBDIR=$sysroot/usr/lib/$triplet/pkgconfig:$sysroot/usr/share/pkgconfig
export PKG_CONFIG_SYSROOT_DIR=$sysroot
unset PKG_CONFIG_PATH
cmake -S "$src" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$src/cmake/toolchain-armhf.cmake" \
  -DZELTA_ARMHF_SYSROOT="$sysroot" -DZELTA_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build" -j "$jobs"
# The device's library against its size budget; the tests run either way and
# the script fails afterwards when the library is too large.
size_status=0
scripts/size-report.sh "$build" || size_status=$?
# Threads and sockets start slowly under emulation: tests without a timeout of
# their own get a long one.
# shellcheck disable=SC2086
ctest --test-dir "$build" --output-on-failure -j "$jobs" --timeout "${ARMHF_TEST_TIMEOUT:-900}" ${CTEST_ARGS:-}
exit "$size_status"
