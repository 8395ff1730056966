#!/usr/bin/env bash
# Registers with `tolvane register` at a Kamailio of Debian's package, over UDP on loopback, and asks Kamailio
# what it holds. Usage: run.sh BUILD_DIR. Ends with 0 only when every scenario passed.
set -uo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
if (($# != 1)) || [[ ! -d $1 ]]; then
  echo "usage: run.sh BUILD_DIR (such as build/release)" >&2
  exit 2
fi
TOLVANE=$(cd "$1" && pwd)/bin/tolvane
if [[ ! -x $TOLVANE ]]; then
  echo "run.sh: there is no $TOLVANE: build it first" >&2
  exit 2
fi
for program in kamailio kamcmd sqlite3 setsid timeout; do
  if ! command -v "$program" >/dev/null; then
    echo "run.sh: $program is missing: apt-get install kamailio kamailio-presence-modules kamailio-sqlite-modules sqlite3" >&2
    exit 2
  fi
done

readonly MIN_EXPIRES=6
readonly PASSWORD='right one'
# No client outlives this, whatever becomes of the script.
readonly LIFE=60

DIR=$(mktemp -d) || exit 2
PIDS=()
# shellcheck source=tests/e2e/kamailio.sh
source "$HERE/kamailio.sh"
# shellcheck source=tests/e2e/reg_event.sh
source "$HERE/reg_event.sh"

clean_up() {
  local pid
  for pid in "${PIDS[@]}"; do kill -KILL "$pid" 2>/dev/null; done
  stop_kamailio
  rm -rf "$DIR"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# --- clients -----------------------------------------------------------------------------------------

# Starts a client in the background; PID is its process, OUT what it prints. DURATION may shorten its life.
start_client() {  # start_client NAME USER@DOMAIN HOST OPTION...
  local name=$1 aor=$2 host=$3
  shift 3
  OUT="$DIR/$name.out"
  : >"$OUT"
  "$TOLVANE" register --aor "sip:$aor" --registrar "sip:$host:$KAMAILIO_PORT" --local "$host:0" \
    --duration "${DURATION:-$LIFE}" --json "$@" >"$OUT" 2>"$OUT.err" </dev/null &
  PID=$!
  PIDS+=("$PID")
}

# Waits for the end of a process; its exit status, or 124 when it had to be ended.
end_of() {  # end_of PID SECONDS
  local pid=$1 status=0 i kept=()
  for ((i = 0; i < $2 * 10; i++)); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  if kill -0 "$pid" 2>/dev/null; then
    kill -KILL "$pid"
    wait "$pid" 2>/dev/null
    status=124
  else
    wait "$pid"
    status=$?
  fi
  for i in "${PIDS[@]}"; do [[ $i == "$pid" ]] || kept+=("$i"); done
  PIDS=("${kept[@]}")
  return "$status"
}

# Whether a notification with this number and these texts has been printed.
notified() {  # notified FILE NUMBER TEXT...
  local file=$1 number=$2 lines text
  shift 2
  lines=$(grep -F '"event":"notification"' "$file" | grep -E "\"id\":${number}[,}]")
  for text in "$@"; do lines=$(grep -F -- "$text" <<<"$lines"); done
  [[ -n $lines ]]
}

within() {  # within SECONDS COMMAND...: until the command succeeds
  local i limit=$(($1 * 10))
  shift
  for ((i = 0; i < limit; i++)); do
    "$@" && return 0
    sleep 0.1
  done
  return 1
}

cseq_above() {  # cseq_above USER@DOMAIN NUMBER: the one binding has a CSeq above this
  local all
  all=$(bindings "$1")
  [[ $(grep -c . <<<"$all") == 1 ]] && (($(cut -d' ' -f4 <<<"$all") > $2))
}

is() {  # is WANTED FOUND WHAT
  [[ $1 == "$2" ]] || why "$3: expected $1, found $2"
}

WHY=
NOTE=  # said of a scenario that passed
why() {
  WHY="$*"
  return 1
}

readonly REGISTERED=4096 DEREGISTERED=4097

# --- scenarios: 0, or 1 with the reason in WHY -------------------------------------------------------

# Ends a registered client by a signal and looks that it gave its binding back.
deregisters() {  # deregisters PID FILE SIGNAL
  kill "-$3" "$1"
  end_of "$1" 10
  is 0 $? "exit status after SIG$3" || return 1
  notified "$2" $DEREGISTERED '<result>0</result>' || why "no notification 0x1001 with result 0"
}

# Registration, at least two refreshes that keep the binding beyond its first expiry, deregistration.
keeps_registered() {  # keeps_registered USER@DOMAIN HOST OPTION...
  local aor=$1 host=$2 first begin cseq port
  shift 2
  start_client keeps "$aor" "$host" --expires 4 --auto-refresh --display-name 'Alice "E2E" Example' \
    --user-agent tolvane-e2e "$@"
  within 10 notified "$OUT" $REGISTERED '<result>0</result>' "<uri>sip:$aor</uri>" ||
    { why "no notification 0x1000 with result 0"; return 1; }
  begin=$SECONDS
  first=$(bindings "$aor")
  is 1 "$(binding_count "$aor")" "bindings after the registration" || return 1
  # The Contact must be the place that the request came from.
  port=$(grep -F "e2e: $aor " "$LOG" | sed -n 's/.* from port \([0-9]*\)$/\1/p' | head -n 1)
  [[ $(cut -d' ' -f1 <<<"$first") =~ ^sip:(.*@)?(.*):([0-9]+)(\;.*)?$ ]]
  is "$host:$port" "${BASH_REMATCH[2]}:${BASH_REMATCH[3]}" "address of the Contact" || return 1
  is tolvane-e2e "$(cut -d' ' -f5 <<<"$first")" "User-Agent" || return 1
  cseq=$(cut -d' ' -f4 <<<"$first")
  within 6 cseq_above "$aor" "$cseq" || { why "no first refresh"; return 1; }
  cseq=$(bindings "$aor" | cut -d' ' -f4)
  within 6 cseq_above "$aor" "$cseq" || { why "no second refresh"; return 1; }
  while ((SECONDS - begin < 7)); do sleep 0.2; done
  is "$(cut -d' ' -f1,3 <<<"$first")" "$(bindings "$aor" | cut -d' ' -f1,3)" \
    "Contact and Call-ID beyond the first expiry" || return 1
  deregisters "$PID" "$OUT" INT || return 1
  is 0 "$(binding_count "$aor")" "bindings after the deregistration"
}

keeps_registered_with_digest() {
  keeps_registered "$@" || return 1
  # One challenge for want of credentials; refreshes are authorised in advance; an aged nonce is renewed.
  is 1 "$(logged "$1" 'code=-5')" "challenges to requests without credentials" || return 1
  is 0 "$(logged "$1" 'code=-2')" "requests with wrong credentials" || return 1
  is 1 "$(logged "$1" 'cseq=3 expires=4 taken')" "first refreshes that were authorised in advance" || return 1
  (($(logged "$1" 'code=-4') > 0)) || why "no nonce went stale, so its renewal was not seen"
}

ends_without_refresh() {  # ends_without_refresh USER@DOMAIN
  start_client single "$1" 127.0.0.1 --expires 2 --no-auto-refresh
  within 10 notified "$OUT" $REGISTERED '<result>0</result>' || { why "no registration"; return 1; }
  is 1 "$(binding_count "$1")" "bindings after the registration" || return 1
  sleep 3
  is 0 "$(binding_count "$1")" "bindings after the expiry" || return 1
  is 1 "$(logged "$1" taken)" "requests that bound" || return 1
  deregisters "$PID" "$OUT" TERM
}

# After a 423 the longer expiry is asked for, which then holds for the refreshes, too.
accepts_longer_expiry() {  # accepts_longer_expiry USER@DOMAIN OPTION...
  local aor=$1 left
  shift
  DURATION=5 start_client brief "$aor" 127.0.0.1 --expires 3 "$@"
  within 10 notified "$OUT" $REGISTERED '<result>0</result>' || { why "no registration"; return 1; }
  is 1 "$(logged "$aor" 'too brief')" "responses 423" || return 1
  left=$(bindings "$aor" | cut -d' ' -f2)
  ((left > MIN_EXPIRES - 3 && left <= MIN_EXPIRES)) ||
    { why "the binding has $left s left, not about $MIN_EXPIRES"; return 1; }
  end_of "$PID" 15
  is 0 $? "exit status after --duration" || return 1
  notified "$OUT" $DEREGISTERED '<result>0</result>' || { why "no notification 0x1001"; return 1; }
  is 1 "$(logged "$aor" 'too brief')" "responses 423 in all" || return 1
  is 2 "$(logged "$aor" "expires=$MIN_EXPIRES taken")" "requests with the longer expiry" || return 1
  is 0 "$(binding_count "$aor")" "bindings at the end"
}

# The 401 goes up as the outcome, after one attempt with the password that is there, or none.
is_refused() {  # is_refused USER@DOMAIN ATTEMPTS OPTION...
  local aor=$1 attempts=$2
  shift 2
  start_client refused "$aor" 127.0.0.1 --expires 60 "$@"
  end_of "$PID" 15
  is 1 $? "exit status" || return 1
  notified "$OUT" $REGISTERED '<result>-1</result>' '<errorcode>401</errorcode>' ||
    { why "no notification 0x1000 with result -1 and errorcode 401"; return 1; }
  is "$attempts" "$(logged "$aor" 'code=-2')" "attempts with a wrong password" || return 1
  is 1 "$(logged "$aor" 'code=-5')" "requests without credentials" || return 1
  is 0 "$(binding_count "$aor")" "bindings"
}

# Two processes bind one address of record; each removes its own binding only.
shares_address() {  # shares_address USER@DOMAIN OPTION...
  local aor=$1 one two one_out two_out one_contact
  shift
  start_client one "$aor" 127.0.0.1 --expires 60 "$@"
  one=$PID one_out=$OUT
  within 10 notified "$one_out" $REGISTERED '<result>0</result>' || { why "first: no registration"; return 1; }
  one_contact=$(bindings "$aor" | cut -d' ' -f1)
  start_client two "$aor" 127.0.0.1 --expires 60 "$@"
  two=$PID two_out=$OUT
  within 10 notified "$two_out" $REGISTERED '<result>0</result>' || { why "second: no registration"; return 1; }
  is 2 "$(binding_count "$aor")" "bindings with both" || return 1
  is 2 "$(bindings "$aor" | cut -d' ' -f3 | sort -u | grep -c .)" "Call-IDs of both" || return 1
  deregisters "$one" "$one_out" INT || return 1
  is 1 "$(binding_count "$aor")" "bindings after the first has gone" || return 1
  [[ $(bindings "$aor" | cut -d' ' -f1) != "$one_contact" ]] ||
    { why "the binding that is left is the first one's"; return 1; }
  kill -0 "$two" 2>/dev/null || { why "the second has ended"; return 1; }
  deregisters "$two" "$two_out" INT || return 1
  is 0 "$(binding_count "$aor")" "bindings after both have gone"
}

# --- the run -----------------------------------------------------------------------------------------

passed=0
failed=0

scenario() {  # scenario TITLE FUNCTION ARGUMENT...
  local title=$1 begin=$SECONDS pid file
  shift
  WHY="" NOTE=""
  rm -f "$DIR"/*.out "$DIR"/*.out.err
  if "$@"; then
    passed=$((passed + 1))
    printf 'ok      %s (%d s%s)\n' "$title" $((SECONDS - begin)) "$NOTE"
  else
    failed=$((failed + 1))
    printf 'FAILED  %s: %s\n' "$title" "$WHY"
    for file in "$DIR"/*.out "$DIR"/*.out.err; do
      if [[ -s $file ]]; then
        echo "  --- ${file##*/}"
        tail -n 20 "$file" | sed 's/^/  /'
      fi
    done
    echo "  --- Kamailio"
    tail -n 20 "$LOG" | sed 's/^/  /'
    for pid in "${PIDS[@]}"; do end_of "$pid" 0; done
  fi
}

need_kamailio() {  # need_kamailio ALGORITHM [WORD...]
  stop_kamailio
  if ! start_kamailio "$1" "$PASSWORD" "$MIN_EXPIRES" "${@:2}"; then
    echo "FAILED  Kamailio with $* does not start:"
    tail -n 20 "$LOG" | sed 's/^/  /'
    failed=$((failed + 1))
    return 1
  fi
}

printf '%s\n' "$PASSWORD" >"$DIR/password"
printf 'wrong one\n' >"$DIR/wrong"
chmod 600 "$DIR/password" "$DIR/wrong"
known=(--auth-user alice --auth-password-file "$DIR/password")
mistaken=(--auth-user alice --auth-password-file "$DIR/wrong")

with_password_in_environment() { TOLVANE_AUTH_PASSWORD=$PASSWORD "$@"; }

if need_kamailio MD5; then
  scenario "register, refresh, deregister" keeps_registered alice@open.test 127.0.0.1
  if ((KAMAILIO_V6)); then
    scenario "register, refresh, deregister on [::1]" keeps_registered alice@six.test '[::1]'
  fi
  scenario "register, refresh, deregister, digest MD5" \
    keeps_registered_with_digest alice@digest.test 127.0.0.1 "${known[@]}"
  scenario "no refresh when it is switched off" ends_without_refresh bob@open.test
  scenario "423" accepts_longer_expiry alice@brief.test
  scenario "423, digest MD5" accepts_longer_expiry alice@brief-digest.test "${known[@]}"
  scenario "wrong password, digest MD5" is_refused mallory@digest.test 1 "${mistaken[@]}"
  scenario "no password, digest MD5" is_refused nobody@digest.test 0
  scenario "second binding of the same address" shares_address carol@open.test
  scenario "second binding of the same address, digest MD5" shares_address carol@digest.test "${known[@]}"
  scenario "nothing is left at Kamailio" is 0 "$(record_count)" "records"
fi
if need_kamailio SHA-256; then
  scenario "register, refresh, deregister, digest SHA-256" with_password_in_environment \
    keeps_registered_with_digest alice@digest.test 127.0.0.1 --auth-user alice
  scenario "wrong password, digest SHA-256" is_refused mallory@digest.test 1 "${mistaken[@]}"
fi
if need_kamailio MD5 REG_EVENT; then reg_event_scenarios "all versions 0" 0; fi
if need_kamailio MD5 REG_EVENT VERSIONS; then reg_event_scenarios "versions counted" 1; fi
if ((KAMAILIO_V6)) && HOST='[::1]' need_kamailio MD5 REG_EVENT VERSIONS; then reg_event_scenarios_v6; fi
stop_kamailio

printf '%d passed, %d failed\n' "$passed" "$failed"
((failed == 0 && passed > 0))
