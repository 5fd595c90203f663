#!/bin/sh
# Publishes standard input as the file named by the argument, and prints how a monitoring program would react.
answer=$(cluster_sync_ctl --json --timeout 20.5 put - "$1" 2> /dev/null)
case $answer in
  *'"published":"both"'*) echo fine ;;
  *'"published":"here"'*) echo "fine, but the other EM is away or has failed" ;;
  *'"why":"not_active"'*) echo "ask the other EM" ;;
  *'"why":"not_replicated"'*) echo "wrong name" ;;
  *) echo "call somebody: $answer" ;;
esac
