# shellcheck shell=bash
# Starts, asks and ends one Kamailio of ours. Sourced by run.sh, which sets DIR (a folder of its own) and HERE.
# It shares nothing with a Kamailio that the system may run: own port, own sockets, own files, ended by its pid.

KAMAILIO_PID=
KAMAILIO_PORT=
KAMAILIO_V6=0
LOG=
# Where Debian's package has the tables of the presence module.
readonly SCHEMAS=/usr/share/kamailio/db_sqlite

udp_port_in_use() {  # udp_port_in_use PORT
  local hex
  hex=$(printf ':%04X ' "$1")
  cat /proc/net/udp /proc/net/udp6 2>/dev/null | sed 's/^ *[0-9]*: \([0-9A-F]*:[0-9A-F]* \).*/\1/' | grep -q "$hex"
}

# Words that the configuration knows. With one of them it listens on one address: 127.0.0.1, or HOST if that is set.
start_kamailio() {  # start_kamailio ALGORITHM PASSWORD MIN_EXPIRES [WORD...]
  local listen i defines=() word host=${HOST:-127.0.0.1}
  LOG="$DIR/kamailio.log"
  for word in "${@:4}"; do defines+=(-A "$word"); done
  rm -f "$DIR/presence.db"
  cat "$SCHEMAS/standard-create.sql" "$SCHEMAS/presence-create.sql" | sqlite3 "$DIR/presence.db" || return 1
  if grep -qs '^00000000000000000000000000000001 ' /proc/net/if_inet6; then KAMAILIO_V6=1; fi
  for _ in 1 2 3 4 5; do
    KAMAILIO_PORT=$((20000 + (RANDOM * 32768 + RANDOM) % 40000))
    if udp_port_in_use "$KAMAILIO_PORT"; then continue; fi
    listen="listen=udp:$host:$KAMAILIO_PORT"
    if ((KAMAILIO_V6 && $# == 3)); then listen+="\\nlisten=udp:[::1]:$KAMAILIO_PORT"; fi
    sed -e "s|@LISTEN@|$listen|" -e "s|@DIR@|$DIR|g" -e "s|@SELF@|$host:$KAMAILIO_PORT|g" -e "s|@ALGORITHM@|$1|" -e "s|@PASSWORD@|$2|" \
      -e "s|@MIN_EXPIRES@|$3|g" "$HERE/kamailio.cfg.in" >"$DIR/kamailio.cfg"
    rm -f "$DIR/ctl"
    # In a session of its own, so that an interrupt at the terminal reaches this script first.
    setsid kamailio -DD -E -f "$DIR/kamailio.cfg" -P "$DIR/kamailio.pid" -w "$DIR" -Y "$DIR" -m 32 -M 4 \
      "${defines[@]}" >"$LOG" 2>&1 </dev/null &
    KAMAILIO_PID=$!
    for ((i = 0; i < 100; i++)); do
      if [[ -S $DIR/ctl ]] && ask core.uptime >/dev/null 2>&1; then return 0; fi
      kill -0 "$KAMAILIO_PID" 2>/dev/null || break
      sleep 0.1
    done
    stop_kamailio
  done
  return 1
}

stop_kamailio() {
  local i
  [[ -n $KAMAILIO_PID ]] || return 0
  kill -TERM "$KAMAILIO_PID" 2>/dev/null || true
  for ((i = 0; i < 50; i++)); do
    kill -0 "$KAMAILIO_PID" 2>/dev/null || break
    sleep 0.1
  done
  # Its session holds its children and nothing else.
  kill -KILL -- "-$KAMAILIO_PID" 2>/dev/null || true
  wait "$KAMAILIO_PID" 2>/dev/null || true
  KAMAILIO_PID=
}

ask() { timeout 5 kamcmd -s "unix:$DIR/ctl" "$@"; }

# The bindings in force, one a line: address, seconds left, Call-ID, CSeq, User-Agent.
bindings() {  # bindings USER@DOMAIN
  local line address="" expires="" call_id="" cseq=""
  # kamcmd exits with 0 whatever the reply, so the reply is looked at.
  ask ul.lookup location "$1" >"$DIR/lookup" 2>&1 || true
  while read -r line; do
    case $line in
      Address:*) address=${line#Address: } ;;
      Expires:*) expires=${line#Expires: } ;;
      Call-ID:*) call_id=${line#Call-ID: } ;;
      CSeq:*) cseq=${line#CSeq: } ;;
      User-Agent:*)
        if [[ $expires =~ ^[1-9][0-9]*$ ]]; then
          printf '%s %s %s %s %s\n' "$address" "$expires" "$call_id" "$cseq" "${line#User-Agent: }"
        fi
        ;;
    esac
  done <"$DIR/lookup"
}

binding_count() { bindings "$1" | grep -c . || true; }

# The subscriptions of an address of record to its own state.
subscription_count() {  # subscription_count USER@DOMAIN
  sqlite3 -cmd '.timeout 2000' "$DIR/presence.db" \
    "SELECT count(*) FROM active_watchers WHERE event = 'reg' AND presentity_uri = 'sip:$1';"
}

# All that Kamailio holds, of any address of record.
record_count() { ask ul.dump 2>/dev/null | sed -n 's/^[[:space:]]*Records: \([0-9]*\).*/\1/p'; }

# How many of its requests Kamailio logged with this text.
logged() {  # logged USER@DOMAIN TEXT
  grep -F "e2e: $1 " "$LOG" | grep -c -F -- "$2" || true
}
