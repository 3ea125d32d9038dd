#!/usr/bin/env bash
# Installs what building and testing Velmaro needs on a Debian machine, idempotently:
# Debian packages, and EDK II from Debian's edk2 source package (Debian patches applied,
# BaseTools built) in a cache folder outside the repository.
# Prints nothing but progress; a second run finds everything in place and returns quickly.
set -euo pipefail

CACHE="${VELMARO_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/velmaro}"
EDK2_VERSION_PREFIX="2022.11"

PACKAGES=(build-essential g++ uuid-dev nasm acpica-tools python3 dpkg-dev cmake googletest
          qemu-system-x86 ovmf mtools dosfstools fdisk ntfs-3g exfatprogs util-linux
          libssl-dev coreutils)

need=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || need+=("$p")
done

if ! grep -rqs '^Types:.*deb-src' /etc/apt/sources.list.d/ && ! grep -qs '^deb-src' /etc/apt/sources.list; then
  echo "setup: adding a deb-src entry for the installed release"
  codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
  cat > /etc/apt/sources.list.d/velmaro-src.sources <<SRC
Types: deb-src
URIs: http://deb.debian.org/debian
Suites: $codename
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
SRC
  need_update=1
fi

if [ ${#need[@]} -gt 0 ] || [ -n "${need_update:-}" ]; then
  echo "setup: apt-get update"
  apt-get update -qq
fi
if [ ${#need[@]} -gt 0 ]; then
  echo "setup: installing ${need[*]}"
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi

mkdir -p "$CACHE"
EDK2="$CACHE/edk2"
if [ ! -f "$EDK2/.velmaro-unpacked" ]; then
  echo "setup: fetching Debian's edk2 source package"
  work="$CACHE/src.$$"
  rm -rf "$work" && mkdir -p "$work"
  ( cd "$work" && apt-get source -qq "edk2" >/dev/null )
  dir=$(find "$work" -maxdepth 1 -mindepth 1 -type d -name 'edk2-*' | head -n 1)
  [ -n "$dir" ] || { echo "setup: edk2 source not unpacked" >&2; exit 1; }
  case "$(basename "$dir")" in
    edk2-"$EDK2_VERSION_PREFIX"*) ;;
    *) echo "setup: warning: expected edk2 $EDK2_VERSION_PREFIX, got $(basename "$dir")" >&2 ;;
  esac
  rm -rf "$EDK2"
  mv "$dir" "$EDK2"
  rm -rf "$work"
  touch "$EDK2/.velmaro-unpacked"
fi

if [ ! -f "$EDK2/.velmaro-basetools" ]; then
  echo "setup: building EDK II BaseTools"
  make -s -C "$EDK2/BaseTools" -j"$(nproc)" >/dev/null 2>"$CACHE/basetools.log" || {
    tail -n 40 "$CACHE/basetools.log" >&2; exit 1; }
  touch "$EDK2/.velmaro-basetools"
fi

echo "setup: EDK II ready in $EDK2"
