#!/usr/bin/env bash
# Makes the IETF base modules (SNMPv2-SMI, SNMPv2-TC, SNMPv2-CONF) available under
# DIR/node_modules/net-snmp/lib/mibs. Debian's main archive does not ship them; the npm
# package `net-snmp` carries them as plain text files. Idempotent and quiet.
set -euo pipefail
dir=$1
mibs=$dir/node_modules/net-snmp/lib/mibs
if [[ -f $mibs/SNMPv2-SMI.mib && -f $mibs/SNMPv2-TC.mib && -f $mibs/SNMPv2-CONF.mib ]]; then
    exit 0
fi
command -v npm >/dev/null || {
    echo "npm is needed to fetch the IETF base MIB modules" >&2
    exit 1
}
mkdir -p "$dir"
npm install --prefix "$dir" --no-audit --no-fund --no-save --silent 'net-snmp@^3' >&2
for m in SNMPv2-SMI SNMPv2-TC SNMPv2-CONF; do
    [[ -f $mibs/$m.mib ]] || {
        echo "net-snmp package has no $m.mib" >&2
        exit 1
    }
done
