#!/bin/sh
# Writes a section-8 manual page (gzipped) from a program's own --help text, so that the page
# says what the program does: manpage.sh PROGRAM HELP-OPTION NAME SUMMARY OUTPUT.gz
set -eu
program=$1
option=$2
name=$3
summary=$4
out=$5
upper=$(printf '%s' "$name" | tr '[:lower:]' '[:upper:]')
{
    printf '.TH %s 8 "" "callhome" "System Administration"\n' "$upper"
    printf '.SH NAME\n%s \\- %s\n' "$name" "$summary"
    printf '.SH DESCRIPTION\n.nf\n'
    # Backslashes and lines starting with a dot or a quote would read as roff requests.
    "$program" "$option" | sed -e 's/\\/\\e/g' -e "s/^\\([.']\\)/\\\\\\&\\1/"
    printf '.fi\n'
    printf '.SH SEE ALSO\n'
    case $name in
    callhomed) printf '.BR callhomectl (8),\n.BR callhome-agentx (8),\n.BR snmpd (8)\n' ;;
    callhomectl) printf '.BR callhomed (8)\n' ;;
    *) printf '.BR callhomed (8),\n.BR snmpd (8)\n' ;;
    esac
} | gzip -9n >"$out"
