# shellcheck shell=bash
# Scenarios of clients that follow Kamailio's own view of their bindings. Sourced by run.sh, whose functions and
# variables it uses.

# From the change at Kamailio to the line that the client prints.
readonly SOON_MS=2000

now_ms() { date +%s%3N; }

# The state notifications that a client has printed, as STATE,EVENT words.
states() {  # states FILE
  sed -n 's/.*"id":4098,.*<state>\(.*\)<\/state><event>\(.*\)<\/event>.*/\1,\2/p' "$1" | xargs
}

# No other state notification than that the binding stands.
only_active() {  # only_active FILE
  [[ $(states "$1") =~ ^(Active,[a-z]+ ?)+$ ]] || why "state notifications \"$(states "$1")\", not only \"Active\""
}

subscribed() { (($(subscription_count "$1") > 0)); }

starts_to_follow() {  # starts_to_follow NAME USER@DOMAIN HOST OPTION...
  start_client "$1" "$2" "$3" --subscribe "${@:4}"
  within 10 notified "$OUT" $REGISTERED '<result>0</result>' || { why "$1: no registration"; return 1; }
  within 10 notified "$OUT" 4098 '<state>Active</state>' || { why "$1: no state notification \"Active\""; return 1; }
  within 2 subscribed "$2" || why "$1: no subscription at Kamailio"
}

# Kamailio has ended the binding at this time; the client says so with this word and ends, and nothing is left.
hears_of_its_end() {  # hears_of_its_end PID FILE USER@DOMAIN MILLISECONDS WORD
  local heard took
  within 10 notified "$2" 4098 '<state>Terminate</state>' || { why "no state notification \"Terminate\""; return 1; }
  heard=$(grep -F '<state>Terminate</state>' "$2" | sed -n 's/.*"time":"\(.*\)"}$/\1/p')
  took=$(($(date -d "$heard" +%s%3N) - $4))
  NOTE+=", heard after $took ms"
  ((took <= SOON_MS)) || { why "heard after $took ms"; return 1; }
  end_of "$1" 10
  is 1 $? "exit status" || return 1
  [[ $(states "$2") =~ ^(Active,[a-z]+\ )+Terminate,$5$ ]] || why "state notifications \"$(states "$2")\""
}

nothing_left_of() {  # nothing_left_of USER@DOMAIN
  is 0 "$(binding_count "$1")" "bindings at the end" || return 1
  is 0 "$(subscription_count "$1")" "subscriptions at the end"
}

# Refreshes are silent; the deregistration takes the subscription along.
follows_and_deregisters() {  # follows_and_deregisters COUNTED USER@DOMAIN HOST OPTION...
  local counted=$1 aor=$2 cseq versions
  starts_to_follow follows "$aor" "$3" --expires 4 --trace "${@:4}" || return 1
  cseq=$(bindings "$aor" | cut -d' ' -f4)
  within 12 cseq_above "$aor" $((cseq + 1)) || { why "no second refresh"; return 1; }
  sleep 0.5
  is Active,created "$(states "$OUT")" "state notifications" || return 1
  # Kamailio's manner is the one that is to be met.
  versions=$(grep -o 'reginfo\\" version=\\"[0-9]*' "$OUT" | sort -u | wc -l)
  (((versions > 1) == counted)) || { why "$versions versions of documents"; return 1; }
  deregisters "$PID" "$OUT" INT || return 1
  nothing_left_of "$aor"
}

hears_of_its_removal() {  # hears_of_its_removal USER@DOMAIN HOST OPTION...
  local aor=$1 at
  starts_to_follow removed "$aor" "$2" --expires 60 "${@:3}" || return 1
  at=$(now_ms)
  ask ul.rm location "$aor" >/dev/null || { why "Kamailio did not take the binding out"; return 1; }
  hears_of_its_end "$PID" "$OUT" "$aor" "$at" unregistered || return 1
  nothing_left_of "$aor"
}

hears_of_its_expiry() {  # hears_of_its_expiry USER@DOMAIN
  local at
  starts_to_follow expires "$1" 127.0.0.1 --expires 3 --no-auto-refresh || return 1
  within 10 notified "$OUT" 4098 '<state>Terminate</state>'
  # Kamailio looks once a second for what has run out.
  at=$(sed -n "s/.*e2e: $1 expired at \([0-9]*\)\.\([0-9][0-9][0-9]\).*/\1\2/p" "$LOG" | tail -n 1)
  [[ -n $at ]] || { why "Kamailio did not let the binding run out"; return 1; }
  hears_of_its_end "$PID" "$OUT" "$1" "$at" expired || return 1
  nothing_left_of "$1"
}

# Other devices of the same address come and go in every way; that is not the client's own end.
outlives_others() {  # outlives_others USER@DOMAIN
  local aor=$1 own own_out contact at
  starts_to_follow own "$aor" 127.0.0.1 --expires 60 || return 1
  own=$PID own_out=$OUT
  starts_to_follow second "$aor" 127.0.0.1 --expires 60 || return 1
  is 2 "$(binding_count "$aor")" "bindings with both" || return 1
  deregisters "$PID" "$OUT" INT || return 1
  start_client third "$aor" 127.0.0.1 --expires 2 --no-auto-refresh
  within 10 notified "$OUT" $REGISTERED '<result>0</result>' || { why "third: no registration"; return 1; }
  within 10 logged_once "$aor" 'expired at' || { why "third: the binding did not run out"; return 1; }
  deregisters "$PID" "$OUT" INT || return 1
  contact=$(bindings "$aor" | cut -d' ' -f1)  # the client's own
  starts_to_follow fourth "$aor" 127.0.0.1 --expires 60 || return 1
  at=$(now_ms)
  contact=$(bindings "$aor" | cut -d' ' -f1 | grep -vxF "$contact")
  ask ul.rm_contact location "$aor" "$contact" >/dev/null
  hears_of_its_end "$PID" "$OUT" "$aor" "$at" unregistered || { why "fourth: $WHY"; return 1; }
  sleep 0.5
  kill -0 "$own" 2>/dev/null || { why "the client has ended with another one"; return 1; }
  only_active "$own_out" || return 1
  is 1 "$(binding_count "$aor")" "bindings after the others have gone" || return 1
  at=$(now_ms)
  ask ul.rm location "$aor" >/dev/null
  hears_of_its_end "$own" "$own_out" "$aor" "$at" unregistered || return 1
  nothing_left_of "$aor"
}

logged_once() { (($(logged "$1" "$2") > 0)); }

comes_back() {  # comes_back USER@DOMAIN
  starts_to_follow back "$1" 127.0.0.1 --expires 60 --auto-reregister --reregister-interval 1 || return 1
  ask ul.rm location "$1" >/dev/null
  within 10 notified "$OUT" 4098 '<id>2</id><state>Active</state>' || { why "not registered again"; return 1; }
  is 1 "$(binding_count "$1")" "bindings after the return" || return 1
  is 1 "$(subscription_count "$1")" "subscriptions after the return" || return 1
  deregisters "$PID" "$OUT" INT || return 1
  nothing_left_of "$1"
}

reg_event_scenarios() {  # reg_event_scenarios TITLE COUNTED
  scenario "follow, refresh, deregister, $1" follows_and_deregisters "$2" dora@open.test 127.0.0.1
  scenario "follow, refresh, deregister, digest MD5, $1" \
    follows_and_deregisters "$2" dora@digest.test 127.0.0.1 "${known[@]}"
  scenario "removal by the operator, $1" hears_of_its_removal erin@open.test 127.0.0.1
  scenario "removal by the operator, digest MD5, $1" \
    hears_of_its_removal erin@digest.test 127.0.0.1 "${known[@]}"
  scenario "expiry, $1" hears_of_its_expiry frank@open.test
  scenario "other devices come and go, $1" outlives_others grace@open.test
  scenario "registered again after a removal, $1" comes_back heidi@open.test
  scenario "nothing is left at Kamailio, $1" is 0 "$(record_count)" "records"
}

reg_event_scenarios_v6() {
  scenario "follow, refresh, deregister on [::1]" follows_and_deregisters 1 dora@six.test '[::1]'
  scenario "removal by the operator on [::1]" hears_of_its_removal erin@six.test '[::1]'
}
