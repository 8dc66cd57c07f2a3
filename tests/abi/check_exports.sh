#!/usr/bin/env bash
# Fails unless the library exports exactly the nine pelmor_ functions under their
# version nodes and carries the soname libpelmor.so.2.
set -euo pipefail
lib=$1
fail() { echo "FAIL: $*" >&2; exit 1; }

soname=$(readelf -d -W "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "libpelmor.so.2" ] || fail "soname is '$soname'"

# Defined global dynamic symbols other than the version-node markers (the arm64
# linker also lists LOCAL section symbols such as .init and .data).
defined=$(readelf --dyn-syms -W "$lib" | awk 'NR>3 && $5 != "LOCAL" && $7 != "UND" && $8 != "" {print $8}' \
  | grep -v -E '^PELMOR_LUSK_2\.[01]$' | sort)
expected=$(printf '%s\n' \
  pelmor_create@@PELMOR_LUSK_2.0 pelmor_destroy@@PELMOR_LUSK_2.0 pelmor_get_runtime_health@@PELMOR_LUSK_2.1 \
  pelmor_get_version@@PELMOR_LUSK_2.0 pelmor_is_running@@PELMOR_LUSK_2.0 pelmor_set_callback@@PELMOR_LUSK_2.0 \
  pelmor_start@@PELMOR_LUSK_2.0 pelmor_status_message@@PELMOR_LUSK_2.0 pelmor_stop@@PELMOR_LUSK_2.0 | sort)
if [ "$defined" != "$expected" ]; then
  diff <(echo "$expected") <(echo "$defined") >&2 || true
  fail "exported symbols differ (expected < > actual)"
fi

# 2.1 inherits from 2.0.
readelf -V -W "$lib" | grep -A1 -E 'Name: PELMOR_LUSK_2.1' | grep -q 'PELMOR_LUSK_2.0' \
  || fail "PELMOR_LUSK_2.1 does not inherit PELMOR_LUSK_2.0"
echo "exports ok: $(echo "$defined" | wc -l) functions, soname $soname"
