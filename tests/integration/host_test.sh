#!/usr/bin/env bash
# One case of the host's behaviour, with the real programs on loopback.
# usage: host_test.sh CASE TOLVANE TOLVANE-REGISTRAR
set -uo pipefail
case_name=$1 tolvane=$2 registrar=$3
dir=$(mktemp -d)
pids=()
failures=0
unset TOLVANE_AUTH_PASSWORD TOLVANE_REGISTRAR_PASSWORD

cleanup() {
  local pid
  for pid in "${pids[@]}"; do
    kill -CONT "$pid" 2>/dev/null
    kill -KILL "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
  done
  rm -rf "$dir"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
  local file
  for file in "$dir"/*.out "$dir"/*.err "$dir"/*.log; do
    ((failures == 1)) && [[ -s $file ]] && { echo "--- ${file##*/}"; tail -n 40 "$file"; }
  done
}

# wait_for SECONDS PATTERN FILE
wait_for() {
  local i
  for ((i = 0; i < $1 * 20; ++i)); do
    grep -q -- "$2" "$3" 2>/dev/null && return 0
    sleep 0.05
  done
  fail "no line with \"$2\" within $1 s"
  return 1
}

# wait_exit SECONDS PID: its status in $status, 124 when it did not end in time
wait_exit() {
  local i
  for ((i = 0; i < $1 * 20; ++i)); do
    kill -0 "$2" 2>/dev/null || break
    sleep 0.05
  done
  if kill -0 "$2" 2>/dev/null; then
    kill -KILL "$2"
    wait "$2" 2>/dev/null
    status=124
  else
    wait "$2"
    status=$?
  fi
}

expect_status() {  # WANTED WHAT
  [[ $status == "$1" ]] || fail "$2: status $status instead of $1"
}
expect_line() {  # PATTERN FILE WHAT
  grep -qE -- "$1" "$2" || fail "$3: no line matches $1"
}

# start_registrar NAME ARGUMENT...: sets uri and registrar_pid
start_registrar() {
  local log="$dir/$1.log"
  shift
  "$registrar" --port 0 --verbose "$@" >"$log" 2>&1 &
  registrar_pid=$!
  pids+=("$registrar_pid")
  wait_for 10 '^listening on ' "$log" || exit 1
  uri=$(sed -n 's/^listening on //p' "$log")
}

stop_registrar() {
  kill -TERM "$registrar_pid"
  wait "$registrar_pid"
}

# start_tolvane NAME ARGUMENT...: in the background; sets tolvane_pid
start_tolvane() {
  local name=$1
  shift
  "$tolvane" register --aor sip:alice@example.com --registrar "$uri" "$@" \
    >"$dir/$name.out" 2>"$dir/$name.err" &
  tolvane_pid=$!
  pids+=("$tolvane_pid")
}

identity='\{8836E13D-A307-43DF-8C88-B7783DC728BF\}'
time_form='"time":"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:.]{12}Z"\}$'

# One road from command to deregistration, every line of it.
road() {  # NAME REGISTRAR-ARGUMENTS -- TOLVANE-ARGUMENTS
  local name=$1 theirs=()
  shift
  while [[ $1 != -- ]]; do
    theirs+=("$1")
    shift
  done
  shift
  echo "road: $name"
  start_registrar "$name" "${theirs[@]}"
  start_tolvane "$name" --json "$@"
  wait_for 10 '"id":4096' "$dir/$name.out"
  kill -INT "$tolvane_pid"
  wait_exit 15 "$tolvane_pid"
  stop_registrar
  local out="$dir/$name.out"
  expect_status 0 "$name"
  expect_line '^\{"event":"answer","command":3,"result":0,"document":"<reg><ret>0</ret><id>1</id></reg>",'"$time_form" "$out" "$name"
  expect_line '^\{"event":"notification","id":4096,"source":"'"$identity"'","document":"<reg><id>1</id><result>0</result><uri>sip:alice@example.com</uri></reg>",'"$time_form" "$out" "$name"
  expect_line '^\{"event":"answer","command":4,"result":0,"document":"<reg><ret>0</ret></reg>",' "$out" "$name"
  expect_line '^\{"event":"notification","id":4097,"source":"'"$identity"'","document":"<reg><id>1</id><result>0</result><uri></uri></reg>",' "$out" "$name"
  [[ $(wc -l <"$out") == 4 ]] || fail "$name: more or fewer than four lines"
  [[ ! -s $dir/$name.err ]] || fail "$name: something was said on the standard error"
  expect_line 'REGISTER sip:alice@example.com, .*expires=0.* -> 200' "$dir/$name.log" "$name: the end at the registrar"
}

roads() {  # ADDRESS LOCAL
  local algorithm secret="$dir/secret"
  # Characters that a header would have to escape, and one line end that does not belong to the password.
  printf 'pass"w\\ord: x\n' >"$secret"
  road "plain" --address "$1" -- --local "$2"
  for algorithm in MD5 MD5-sess SHA-256 SHA-256-sess SHA-512-256 SHA-512-256-sess; do
    road "$algorithm" --address "$1" --user alice --password-file "$secret" --algorithm "$algorithm" -- \
      --auth-user alice --auth-password-file "$secret"
  done
  road "rfc2069" --address "$1" --user alice --password-file "$secret" --algorithm MD5 --qop none -- \
    --auth-user alice --auth-password-file "$secret"
  road "407" --address "$1" --user alice --password-file "$secret" --proxy-challenge -- \
    --auth-user alice --auth-password-file "$secret"
}

# usage_error PATTERN ARGUMENT...: status 2, the pattern on the standard error, nothing on the standard output
usage_error() {
  local pattern=$1
  shift
  "$tolvane" "$@" >"$dir/usage.out" 2>"$dir/usage.err"
  status=$?
  expect_status 2 "$*"
  expect_line "$pattern" "$dir/usage.err" "$*"
  [[ ! -s $dir/usage.out ]] || fail "$*: usage errors belong on the standard error"
}

case_usage() {
  local ok=(register --aor sip:alice@example.com --registrar sip:127.0.0.1:9)
  usage_error 'subcommand' # nothing at all
  usage_error 'dance' dance
  usage_error '--registrar' register --aor sip:alice@example.com
  usage_error '--expires' "${ok[@]}" --expires soon
  usage_error '4294967.*not 0' "${ok[@]}" --expires 0
  usage_error '4294967.*not 4294968' "${ok[@]}" --expires 4294968
  usage_error 'not -1' "${ok[@]}" --expires=-1
  usage_error '--duration' "${ok[@]}" --duration 0
  usage_error 'sip:alice@example.com' register --aor alice@example.com --registrar sip:127.0.0.1
  usage_error 'no SIP URI' register --aor tel:123 --registrar sip:127.0.0.1
  usage_error 'TLS' register --aor sips:alice@example.com --registrar sip:127.0.0.1
  usage_error 'cannot be read' register --aor 'sip:alice@' --registrar sip:127.0.0.1
  usage_error 'cannot be read' register --aor 'sip:a@b>,<sip:c@d' --registrar sip:127.0.0.1
  usage_error 'holds a password' register --aor 'sip:alice:secret@example.com' --registrar sip:127.0.0.1
  ! grep -q secret "$dir/usage.err" || fail "the password of the URI was repeated"
  usage_error 'user part' register --aor sip:alice@example.com --registrar sip:alice@example.com
  usage_error 'only udp' register --aor sip:alice@example.com --registrar 'sip:example.com;transport=tcp'
  usage_error 'control characters' register --aor $'sip:alice@example.com\r\nX: y' --registrar sip:127.0.0.1
  usage_error 'display name' "${ok[@]}" --display-name 'Alice <sip:x@y>'
  usage_error 'control' "${ok[@]}" --user-agent $'a\nb'
  usage_error 'UTF-8' "${ok[@]}" --user-agent $'\xff\xfe'
  usage_error 'reregister-interval' "${ok[@]}" --auto-reregister
  usage_error 'auto-reregister' "${ok[@]}" --reregister-interval 5
  usage_error 'brackets' "${ok[@]}" --local ::1:5070
  usage_error 'no port' "${ok[@]}" --local 127.0.0.1
  usage_error 'port between' "${ok[@]}" --local 127.0.0.1:65536
  usage_error 'port between' "${ok[@]}" --local '[::1]5070'
  usage_error 'no address' "${ok[@]}" --local localhost:5070
  usage_error 'same kind' "${ok[@]}" --local '[::1]:5070'
  usage_error 'needs a password' "${ok[@]}" --auth-user alice
  : >"$dir/empty"
  head -c 2000 /dev/zero | tr '\0' x >"$dir/long"
  printf 'one\ntwo\n' >"$dir/two"
  printf 'good\n' >"$dir/good"
  usage_error 'is empty' "${ok[@]}" --auth-user alice --auth-password-file "$dir/empty"
  usage_error 'too long' "${ok[@]}" --auth-user alice --auth-password-file "$dir/long"
  usage_error 'more than one line' "${ok[@]}" --auth-user alice --auth-password-file "$dir/two"
  usage_error 'No such file' "${ok[@]}" --auth-user alice --auth-password-file "$dir/absent"
  usage_error 'cannot be read' "${ok[@]}" --auth-user alice --auth-password-file "$dir"
  usage_error 'no user' "${ok[@]}" --auth-password-file "$dir/good"
  TOLVANE_AUTH_PASSWORD=x usage_error 'no user' "${ok[@]}"
  TOLVANE_AUTH_PASSWORD='' usage_error 'empty' "${ok[@]}" --auth-user alice

  "$tolvane" --version >"$dir/version.out" || fail "--version"
  expect_line '^tolvane [0-9]+\.[0-9]+\.[0-9]+$' "$dir/version.out" "--version"
  "$tolvane" register --help >"$dir/help.out" || fail "--help"
  expect_line 'TOLVANE_AUTH_PASSWORD' "$dir/help.out" "--help"
  expect_line '^  tolvane register --aor ' "$dir/help.out" "--help has examples"
}

case_no_start() {
  # An address of documentation (RFC 5737): no machine has it.
  "$tolvane" register --aor sip:a@b --registrar sip:127.0.0.1:9 --local 192.0.2.1:0 2>"$dir/address.err"
  status=$?
  expect_status 3 "a foreign address"
  expect_line 'network could not be started.*192\.0\.2\.1' "$dir/address.err" "a foreign address"

  mkdir "$dir/bin" "$dir/lib"
  cp "$tolvane" "$dir/bin/"
  cp "$(dirname "$tolvane")"/../lib/*.so* "$dir/lib/"
  rm "$dir/lib/libTolvane.so"
  "$dir/bin/tolvane" register --aor sip:a@b --registrar sip:127.0.0.1:9 2>"$dir/plugin.err"
  status=$?
  expect_status 3 "no plug-in"
  expect_line 'plug-in could not be started.*libTolvane\.so' "$dir/plugin.err" "no plug-in"
}

case_failures() {
  export TOLVANE_REGISTRAR_PASSWORD=right
  start_registrar failures --user alice

  echo "no credentials"
  start_tolvane nobody
  wait_exit 10 "$tolvane_pid"
  expect_status 1 "no credentials"
  expect_line 'Registration failed.*401.*--auth-user' "$dir/nobody.out" "no credentials"

  echo "a wrong password"
  TOLVANE_AUTH_PASSWORD=wrong start_tolvane wrong --auth-user alice --json --trace
  wait_exit 10 "$tolvane_pid"
  expect_status 1 "a wrong password"
  expect_line '"id":4096,.*<result>-1</result><errorcode>401</errorcode>' "$dir/wrong.out" "a wrong password"
  expect_line '"event":"trace","direction":"sent",.*Authorization: Digest' "$dir/wrong.out" "the trace"
  [[ $(grep -c '"direction":"sent"' "$dir/wrong.out") == 2 ]] || fail "a wrong password costs one attempt"
  ! grep -qE 'response=\\"[0-9a-f]{32}' "$dir/wrong.out" || fail "the trace shows the digest"

  echo "a refresh that is refused"
  TOLVANE_AUTH_PASSWORD=right start_tolvane lost --auth-user alice --expires 4
  wait_for 10 'Registered' "$dir/lost.out"
  local port=${uri##*:}
  stop_registrar
  TOLVANE_REGISTRAR_PASSWORD=changed "$registrar" --port "$port" --user alice >"$dir/second.log" 2>&1 &
  registrar_pid=$!
  pids+=("$registrar_pid")
  wait_exit 20 "$tolvane_pid"
  expect_status 1 "a refused refresh"
  expect_line 'Registration lost: the registrar refused' "$dir/lost.out" "a refused refresh"
}

case_refresh() {
  export TOLVANE_REGISTRAR_PASSWORD=right TOLVANE_AUTH_PASSWORD=right
  # The wish of 2 s is too short: 423 makes it 4 s, so a refresh comes every 2 s.
  start_registrar refresh --user alice --min-expires 4
  start_tolvane refresh --auth-user alice --expires 2 --duration 5 --display-name 'Alice B.' --trace
  wait_exit 20 "$tolvane_pid"
  expect_status 0 "the end of --duration"
  expect_line '-> 423' "$dir/refresh.log" "the short wish"
  local granted
  granted=$(grep -cE 'expires=4.* -> 200' "$dir/refresh.log")
  ((granted == 3)) || fail "$granted answers of 200 with 4 s instead of the first and two refreshes"
  # The nonce is known: a refresh is authorised in advance.
  [[ $(grep -c -- '-> 401' "$dir/refresh.log") == 1 ]] || fail "more than the first request was challenged"
  expect_line '^[0-9:.]{12}  Registered: ' "$dir/refresh.out" "words with a time"
  expect_line '^[0-9:.]{12}  Deregistered: ' "$dir/refresh.out" "words with a time"
  expect_line '\| From: "?Alice B\."? ?<sip:alice@example\.com>' "$dir/refresh.out" "the display name in the trace"
}

case_ends() {
  start_registrar ends
  echo "SIGTERM"
  start_tolvane term
  wait_for 10 'Registered' "$dir/term.out"
  kill -TERM "$tolvane_pid"
  wait_exit 10 "$tolvane_pid"
  expect_status 0 "SIGTERM"

  echo "SIGINT before the first answer, then a second one"
  kill -STOP "$registrar_pid"
  start_tolvane early
  wait_for 10 'Registering' "$dir/early.out"
  kill -INT "$tolvane_pid"
  wait_for 10 'Another Ctrl-C' "$dir/early.out"
  local before=$SECONDS
  kill -INT "$tolvane_pid"
  wait_exit 10 "$tolvane_pid"
  expect_status 1 "never registered"
  ((SECONDS - before <= 4)) || fail "the second SIGINT did not end the wait at once"

  echo "SIGINT before the first answer, which then comes"
  start_tolvane late
  wait_for 10 'Registering' "$dir/late.out"
  kill -INT "$tolvane_pid"
  wait_for 10 'Deregistering' "$dir/late.out"
  kill -CONT "$registrar_pid"
  wait_exit 20 "$tolvane_pid"
  expect_status 1 "never registered"
  expect_line 'Deregistered: ' "$dir/late.out" "the deregistration of what was not answered yet"
  stop_registrar
  # Whatever got through last at the registrar, it was the removal.
  tail -n 2 "$dir/ends.log" | grep -qE 'expires=0.* -> 200' || fail "the binding was not given back"
}

case_broken_output() {
  start_registrar broken
  "$tolvane" register --aor sip:alice@example.com --registrar "$uri" --expires 4 --trace \
    > >(head -n 1 >/dev/null) 2>"$dir/broken.err" &
  tolvane_pid=$!
  pids+=("$tolvane_pid")
  wait_for 20 'output has been closed' "$dir/broken.err"
  kill -INT "$tolvane_pid"
  wait_exit 10 "$tolvane_pid"
  expect_status 0 "a closed output"
  stop_registrar
  expect_line 'expires=0.* -> 200' "$dir/broken.log" "the deregistration"
}

case_comes_back() {
  start_registrar back
  start_tolvane back --expires 2 --auto-reregister --reregister-interval 1
  wait_for 10 'Registered' "$dir/back.out"
  kill -STOP "$registrar_pid"
  # 64 * T1 = 32 s until the stack gives the refresh up.
  wait_for 60 'Registration lost.*every 1 s' "$dir/back.out"
  kill -CONT "$registrar_pid"
  local i
  for ((i = 0; i < 400; ++i)); do
    [[ $(grep -c 'Registered' "$dir/back.out") == 2 ]] && break
    sleep 0.05
  done
  [[ $(grep -c 'Registered' "$dir/back.out") == 2 ]] || fail "the registration did not come back"
  kill -INT "$tolvane_pid"
  wait_exit 10 "$tolvane_pid"
  expect_status 0 "brought back and deregistered"
}

case_demo() {
  "$tolvane" demo >"$dir/demo.out" 2>"$dir/demo.err"
  status=$?
  expect_status 0 "demo"
  expect_line '-> REGISTER sip:127\.0\.0\.1:[0-9]+ CSeq [0-9]+ Expires 4' "$dir/demo.out" "demo"
  expect_line '<- 423 Interval Too Brief Min-Expires 4' "$dir/demo.out" "demo"
  expect_line '<- 200 OK expires=4' "$dir/demo.out" "demo"
  expect_line '-> REGISTER .* Expires 0' "$dir/demo.out" "demo"
  [[ $(grep -c '^  yes  ' "$dir/demo.out") == 7 ]] || fail "demo: not all promises kept"
}

case $case_name in
  roads_ipv4) roads 127.0.0.1 127.0.0.1:0 ;;
  roads_ipv6)
    if [[ ! -e /proc/net/if_inet6 ]] || ! grep -q '^0\{31\}1 ' /proc/net/if_inet6; then
      echo "this machine has no ::1"
      exit 77
    fi
    roads ::1 '[::1]:0'
    ;;
  demo | usage | no_start | failures | refresh | ends | broken_output | comes_back) "case_$case_name" ;;
  *)
    echo "there is no case $case_name"
    exit 2
    ;;
esac
((failures == 0)) && echo "passed: $case_name"
exit $((failures != 0))
