#!/usr/bin/env bash
# Installs the Debian packages that building and testing libzelta need, when
# any is missing. Extra package names may be given as arguments.
set -euo pipefail

packages=(cmake g++ make pkg-config file dpkg-dev libgtest-dev libgmock-dev libbenchmark-dev libsnmp-dev snmp snmpd snmptrapd
  clang libclang-rt-14-dev smitools python3-pysnmp4 python3-pysmi "$@")
# The MIB module tests fetch the IETF base modules with npm: any npm will do.
command -v npm >/dev/null 2>&1 || packages+=(npm)
missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then
    sudo="sudo"
  else
    echo "install-deps: missing packages: ${missing[*]}" >&2
    echo "install-deps: run as root (or install them with apt-get) and try again" >&2
    exit 1
  fi
else
  sudo=""
fi
echo "install-deps: installing ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
# The stock daemons are only test peers: never leave them running on ports 161 and 162.
if command -v service >/dev/null 2>&1; then
  $sudo service snmpd stop >/dev/null 2>&1 || true
  $sudo service snmptrapd stop >/dev/null 2>&1 || true
fi
