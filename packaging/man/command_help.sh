#!/bin/sh
# Writes a help2man include file with a COMMANDS section holding each
# command's own --help, so the man page lists every command's options as the
# program prints them.
#   command_help.sh PROGRAM OUTPUT COMMAND...
set -eu
program=$1 output=$2
shift 2
{
  echo '[COMMANDS]'
  for command in "$@"; do
    echo ".SS $command"
    echo '.nf'
    # Backslashes and lines starting with a roff control character are quoted.
    "$program" "$command" --help | sed -e 's/\\/\\e/g' -e "s/^[.']/\\\\\\&&/"
    echo '.fi'
  done
} >"$output"
