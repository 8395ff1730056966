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

# The seconds below are for an idle machine; a busy one gets so many times as long.
slack=4

# wait_count SECONDS COUNT PATTERN FILE: until at least so many lines match
wait_count() {
  local i
  for ((i = 0; i < $1 * 20 * slack; ++i)); do
    [[ $(grep -c -- "$3" "$4" 2>/dev/null) -ge $2 ]] && return 0
    sleep 0.05
  done
  fail "fewer than $2 lines with \"$3\" within $(($1 * slack)) s"
  return 1
}

# wait_for SECONDS PATTERN FILE
wait_for() { wait_count "$1" 1 "$2" "$3"; }

# wait_exit SECONDS PID: its status in $status, 124 when it did not end in time
wait_exit() {
  local i
  for ((i = 0; i < $1 * 20 * slack; ++i)); do
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

# start_registrar NAME ARGUMENT...: sets uri and registrar_pid; its input is $registrar_in
start_registrar() {
  local log="$dir/$1.log"
  shift
  "$registrar" --port 0 --verbose "$@" <"${registrar_in:-/dev/null}" >"$log" 2>&1 &
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

# interrupt NAME WHAT: ends it by SIGINT once it is registered
interrupt() {
  wait_for 10 'Registered' "$dir/$1.out"
  kill -INT "$tolvane_pid"
  wait_exit 15 "$tolvane_pid"
  expect_status 0 "$2"
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
  [[ ! -s $dir/$name.err ]] || fail "$name: something stands on the standard error"
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
  usage_error '--t1.*10 and 4000 milliseconds, not 9' "${ok[@]}" --t1 9
  usage_error '--t1.*not 4001' "${ok[@]}" --t1 4001
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

  cp "$(dirname "$tolvane")"/../lib/*.so* "$dir/lib/"
  rm "$dir/lib/libTolvaneSubscription.so"
  "$dir/bin/tolvane" register --aor sip:a@b --registrar sip:127.0.0.1:9 --subscribe 2>"$dir/service.err"
  status=$?
  expect_status 3 "no subscription service"
  expect_line 'plug-in could not be started.*libTolvaneSubscription\.so' "$dir/service.err" "no subscription service"
  "$dir/bin/tolvane" register --aor sip:a@b --registrar sip:127.0.0.1:9 --duration 1 >"$dir/without.out" 2>&1
  status=$?
  expect_status 1 "no subscription service, and none is wanted"
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
  # 2 s are too short: 423 makes them 3 s, so a refresh comes each second.
  start_registrar refresh --user alice --min-expires 3
  local began=$SECONDS granted
  start_tolvane refresh --auth-user alice --expires 2 --display-name 'Alice B.' --trace
  wait_count 20 3 'expires=3.* -> 200' "$dir/refresh.log"
  kill -INT "$tolvane_pid"
  wait_exit 10 "$tolvane_pid"
  expect_status 0 "refreshed and deregistered"
  expect_line '-> 423' "$dir/refresh.log" "the short expiry"
  granted=$(grep -cE 'expires=3.* -> 200' "$dir/refresh.log")
  ((granted <= SECONDS - began + 2)) || fail "$granted requests with 3 s: more than one a second"
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

  echo "SIGINT before the first response, then a second one"
  kill -STOP "$registrar_pid"
  start_tolvane early --t1 200
  wait_for 10 'Registering' "$dir/early.out"
  kill -INT "$tolvane_pid"
  wait_for 10 'Another Ctrl-C' "$dir/early.out"
  local before=$SECONDS
  kill -INT "$tolvane_pid"
  wait_exit 10 "$tolvane_pid"
  expect_status 1 "never registered"
  ((SECONDS - before <= 4)) || fail "the second SIGINT did not end the wait at once"

  echo "SIGINT before the first response, which then comes"
  start_tolvane late
  wait_for 10 'Registering' "$dir/late.out"
  kill -INT "$tolvane_pid"
  wait_for 10 'Deregistering' "$dir/late.out"
  kill -CONT "$registrar_pid"
  wait_exit 20 "$tolvane_pid"
  expect_status 1 "never registered"
  expect_line 'Deregistered: ' "$dir/late.out" "the deregistration before the first response"
  stop_registrar
  # Whatever got through last at the registrar, it was the removal.
  tail -n 2 "$dir/ends.log" | grep -qE 'expires=0.* -> 200' || fail "the binding was not removed"
}

case_broken_output() {
  start_registrar broken
  "$tolvane" register --aor sip:alice@example.com --registrar "$uri" --expires 2 --trace \
    > >(head -n 1 >/dev/null) 2>"$dir/broken.err" &
  tolvane_pid=$!
  pids+=("$tolvane_pid")
  wait_for 20 'output has been closed' "$dir/broken.err"
  wait_for 10 'CSeq 2, .*expires=2.* -> 200' "$dir/broken.log"
  kill -INT "$tolvane_pid"
  wait_exit 10 "$tolvane_pid"
  expect_status 0 "a closed output"
  stop_registrar
  expect_line 'expires=0.* -> 200' "$dir/broken.log" "the deregistration"
}

case_comes_back() {
  start_registrar back
  # The stack gives an unanswered refresh up after 64 * T1 = 3.2 s.
  start_tolvane back --expires 2 --t1 50 --auto-reregister --reregister-interval 1
  wait_for 10 'Registered' "$dir/back.out"
  kill -STOP "$registrar_pid"
  wait_for 20 'Registration lost.*every 1 s' "$dir/back.out"
  kill -CONT "$registrar_pid"
  wait_count 20 2 'Registered' "$dir/back.out"
  kill -INT "$tolvane_pid"
  wait_exit 10 "$tolvane_pid"
  expect_status 0 "registered again and deregistered"
}

case_demo() {
  "$tolvane" demo >"$dir/demo.out" 2>"$dir/demo.err"
  status=$?
  expect_status 0 "demo"
  expect_line '-> REGISTER sip:127\.0\.0\.1:[0-9]+ CSeq [0-9]+ Expires 3' "$dir/demo.out" "demo"
  expect_line '<- 423 Interval Too Brief Min-Expires 3' "$dir/demo.out" "demo"
  expect_line '<- 200 OK expires=3' "$dir/demo.out" "demo"
  expect_line '-> REGISTER .* Expires 0' "$dir/demo.out" "demo"
  expect_line '<- NOTIFY .*binding terminated, deactivated' "$dir/demo.out" "demo"
  expect_line 'Registration lost: .*\(deactivated\)' "$dir/demo.out" "demo"
  [[ $(grep -c '^  yes  ' "$dir/demo.out") == 9 ]] || fail "demo: not all promises kept"
}

# write_config HEADER-LINE...: one template; the first header stands in line 3
write_config() {
  mkdir -p "$dir/conf"
  {
    printf '<sip-messages>\n<message kind="REG" method="REGISTER">\n'
    printf '%s\n' "$@"
    printf '</message>\n</sip-messages>\n'
  } >"$dir/conf/next"
  mv "$dir/conf/next" "$dir/conf/TOLVANE.xml"
}

# faulty LINE PATTERN: what stands in the file is refused for this, with its name and line (0: the file as a whole)
faulty() {
  local place="^$dir/conf/TOLVANE\.xml:$1: .*$2"
  [[ $1 != 0 ]] || place="^$dir/conf/TOLVANE\.xml: .*$2"
  echo "faulty: $2"
  "$tolvane" check-config --work-dir "$dir/conf" >"$dir/faulty.out" 2>"$dir/faulty.err"
  status=$?
  expect_status 1 "check-config: $2"
  expect_line "$place" "$dir/faulty.err" "check-config"
  [[ ! -s $dir/faulty.out ]] || fail "check-config: faults belong on the standard error"
  usage_error "$place" register --aor sip:alice@example.com --registrar sip:127.0.0.1:9 --duration 1 \
    --work-dir "$dir/conf"
}

case_config() {
  cd "$dir" || exit 1
  start_registrar config
  echo "templates on the wire"
  write_config '<header name="X-Zone">cell;user=${local-uri}</header>' \
    '<header name="X-Bill">${display-name} &lt;${remote-uri}&gt; via ${request-uri}, $${plain}</header>' \
    '<header name="X-Site">of ${site}</header>' '<header name="Expires">7200</header>' \
    '<header name="A-Last">${display-name}</header>' '<header name="User-Agent">template</header>'
  start_tolvane wire --work-dir conf --trace --display-name 'Alice B.' --user-agent tester --expires 600
  interrupt wire "a registration with templates"
  # What stands behind the Contact of the first message.
  awk '/-> sent/ {++sent} sent == 1 && behind && / \| / {sub(/^ *\| /, ""); print} / \| Contact:/ {behind = 1}
    /<- received/ {exit}' wire.out >wire.headers
  diff - wire.headers >wire.diff <<HEADERS || fail "other headers than expected: $(cat wire.diff)"
X-Zone: cell;user=sip:alice@example.com
X-Bill: Alice B. <sip:alice@example.com> via $uri, \${plain}
Expires: 600
A-Last: Alice B.
User-Agent: tester
Content-Length: 0
HEADERS
  "$tolvane" check-config --work-dir conf >check.out 2>check.err || fail "check-config refuses a good file"
  expect_line '^REG REGISTER \(line 2\)$' check.out "the template's kind, method and line"
  expect_line '^  X-Zone: cell;user=\$\{local-uri\}$' check.out "a header as it stands in the file"
  [[ $(grep -A 1 'X-Site' check.out) == *'note: nothing ever fills ${site} in'* ]] || fail "no note about \${site}"
  [[ $(grep -c 'note:' check.out) == 2 ]] || fail "more or fewer notes than about \${site} and Expires"
  write_config $'<header name="X-T">\xc3\xbc\xc2\x9b1m\xe2\x80\xaeab</header>'
  [[ $("$tolvane" check-config --work-dir conf) == *$'X-T: \xc3\xbc?1m?ab'* ]] || fail "control characters reach the terminal"

  echo "read again under way"
  write_config '<header name="X-Version">1</header>'
  start_tolvane again --work-dir "$dir/conf" --trace --json --expires 2 --log-dir log --log-level 0
  wait_for 10 '"id":4096' again.out
  write_config '<header name="X-Version">2</header>'
  kill -HUP "$tolvane_pid"
  wait_for 10 'X-Version: 2' again.out
  write_config '<header name="X-Version">3</header>' '<header name="Via">x</header>'
  kill -HUP "$tolvane_pid"
  wait_for 10 '"event":"remark".*TOLVANE.xml:4: .*Via' again.out
  local before
  before=$(grep -c 'X-Version: 2' again.out)
  wait_count 10 $((before + 1)) 'X-Version: 2' again.out
  kill -INT "$tolvane_pid"
  wait_exit 15 "$tolvane_pid"
  expect_status 0 "templates read again"
  expect_line "^$dir/conf/TOLVANE\.xml:4: .*Via" again.err "the fault"
  expect_line "^$dir/conf/TOLVANE\.xml:4: .*Via" log/Tolvane.log "the fault in the log"
  expect_line '"direction":"sent".*X-Version: 1\\r' again.out "the first template"
  ! grep -q 'X-Version: 3' again.out || fail "a faulty file is in force"
  [[ $(grep -c '"command":2,"result":1073741826,' again.out) == 2 ]] || fail "other results than for the two good files"

  echo "nothing is injected"
  write_config '<header name="X-Account">${local-uri} ${display-name}</header>'
  local line=$'\r\nX-Injected: 1' ok=(register --aor sip:alice@example.com --registrar "$uri")
  usage_error 'display-name' "${ok[@]}" --display-name "Alice$line"
  usage_error 'user-agent' "${ok[@]}" --user-agent "tester$line"
  usage_error 'control' register --aor "sip:alice$line@example.com" --registrar "$uri"
  usage_error 'work-dir.*control' "${ok[@]}" --work-dir "conf$line"
  "$tolvane" register --aor 'sip:alice%0d%0aX-Injected%3a%201@example.com' --registrar "$uri" --work-dir conf \
    --display-name Alice --trace --duration 1 >escaped.out 2>escaped.err || fail "an address with escaped line ends"
  expect_line '\| X-Account: sip:alice%0[dD]%0[aA]X-Injected' escaped.out "an address with escaped line ends"
  ! grep -q '| X-Injected' escaped.out || fail "a header was injected"
  stop_registrar

  write_config '<header name="X-A">&#13;&#10;X-Injected: 1</header>'
  faulty 3 'X-A'
  write_config '<header name="X-A">one</header>' $'<header name="X-B">a\tb</header>'
  faulty 4 'X-B'
  write_config '<header name="X A">one</header>'
  faulty 3 'token'
  write_config '<header name="X-A">${local-uri</header>'
  faulty 3 'X-A'
  write_config '<header name="X-A">one</header>' '<headers/>'
  faulty 4 'unknown element'
  write_config '<header name="X-A" value="one">one</header>'
  faulty 3 'unknown attribute "value"'
  write_config '</message><note/><message kind="REG" method="X">'
  faulty 3 'unknown element "note"'
  write_config '<header name="X-A">one'
  faulty 4 'XML'
  local names=(Via From To Call-ID CSeq Contact Max-Forwards Content-Length Authorization Proxy-Authorization
    Route v cOnTaCt) name
  mapfile -t lines < <(printf '<header name="%s">x</header>\n' "${names[@]}")
  write_config "${lines[@]}"
  faulty 3 'Via'
  local number=3
  for name in "${names[@]}"; do
    expect_line "TOLVANE\.xml:$number: .*\"$name\"" faulty.err "$name belongs to the stack"
    number=$((number + 1))
  done
  rm conf/TOLVANE.xml
  faulty 0 'No such file'
  usage_error '--work-dir' check-config
  usage_error 'empty' check-config --work-dir ''
}

# expect_log FILE PID: nothing but openings, traces and records of this process, each whole
expect_log() {
  LC_ALL=C awk -v pid="$2" '
    BEGIN {
      stamp = "[0-9]+-[0-9][0-9]-[0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9][0-9][0-9]"
      head = "^\\[" stamp "\\]\\[P:" pid "/T:[0-9]+\\]\\[[A-Za-z]+\\.cpp:[0-9]+ [A-Za-z:~]+\\(\\)\\]"
    }
    NR == 1 && $0 !~ "^Begin Time:" stamp "\r$" {bad = 1}
    content {if ($0 != "Content:\r") bad = NR; content = 0; text = 1; next}
    /^\[/ {
      if (text) bad = NR
      if ($0 ~ head "\\[(Err|War|Inf|Dbg)\\]\r$") content = 1
      else if ($0 !~ head "\\[(Enter|Leave)\\]\r$") bad = NR
    }
    /\r$/ {text = 0}
    bad {print "line " bad ": " $0; exit 1}
    END {exit bad || content || text}' "$1" || fail "no proper record in $1"
}

# wait_copy NAME TEXT: until this copy of the log in "ring" begins with the text
wait_copy() {
  local i
  for ((i = 0; i < 200 * slack; ++i)); do
    [[ $(head -c ${#2} "ring/$1" 2>/dev/null) == "$2" ]] && return
    sleep 0.05
  done
  fail "ring/$1 does not begin with $2: $(ls -l ring)"
}

# fill_log LETTER: more than 1 MiB of it onto the log in "ring", in one write, so that no rotation comes between
fill_log() {
  head -c 1100000 /dev/zero | tr '\0' "$1" >"$dir/filling"
  dd if="$dir/filling" of=ring/Tolvane.log bs=2M oflag=append conv=notrunc status=none
}

case_log() {
  cd "$dir" || exit 1
  start_registrar log
  echo "everything, below the current directory"
  write_config '<header name="X-Zone">1</header>'
  start_tolvane all --log-dir logs/deep --log-level 3 --work-dir conf --duration 1 --expires 600
  wait_exit 15 "$tolvane_pid"
  expect_status 0 "a registration with a log"
  local log=logs/deep/Tolvane.log
  expect_log "$log" "$tolvane_pid"
  expect_line "^m_strCfgPath is $dir/conf$" "$log" "the configuration is read behind the opening of the log"
  expect_line 'CRegister::SendRegister\(\)\]\[Enter\]' "$log" "level 3"
  expect_line '^m_stRegInfo.m_nExpires is 600$' "$log" "the first REGISTER"
  expect_line '^m_stRegInfo.m_nExpires is 0$' "$log" "the last REGISTER"
  [[ $(grep -c '\[Enter\]' "$log") == $(grep -c '\[Leave\]' "$log") ]] || fail "a scope lacks one of its ends"

  echo "warnings and errors"
  start_tolvane few --log-dir "$dir/few/" --log-level 1 --expires 2
  wait_for 10 'Registered' few.out
  stop_registrar
  wait_exit 20 "$tolvane_pid"
  expect_status 1 "a registrar that went away"
  expect_log few/Tolvane.log "$tolvane_pid"
  expect_line '\]\[War\]' few/Tolvane.log "level 1"
  ! grep -qE '\]\[(Inf|Dbg|Enter|Leave)\]' few/Tolvane.log || fail "level 1 lets more than warnings through"

  echo "the ring of copies"
  start_registrar ring
  mkdir ring
  fill_log A
  # Every second a refresh writes some records; the first of them finds the log full.
  start_tolvane ring --log-dir ring --log-max-size 1 --log-files 2 --expires 2
  wait_copy 1_Tolvane.log AAAA
  fill_log B
  # Behind the records since the last rotation.
  wait_copy 2_Tolvane.log 'Begin Time:'
  grep -aq BBBB ring/2_Tolvane.log || fail "the second copy is not the second full log"
  fill_log C
  wait_copy 1_Tolvane.log 'Begin Time:'
  kill -INT "$tolvane_pid"
  wait_exit 15 "$tolvane_pid"
  expect_status 0 "a log that is rotated"
  grep -aq CCCC ring/1_Tolvane.log || fail "the first copy is not the third full log"
  grep -aq BBBB ring/2_Tolvane.log || fail "the second copy was touched by the third rotation"
  [[ $(cd ring && echo *) == '1_Tolvane.log 2_Tolvane.log Tolvane.log' ]] || fail "other files: $(ls ring)"
  expect_log ring/Tolvane.log "$tolvane_pid"
  stop_registrar

  echo "what is refused"
  local ok=(register --aor sip:alice@example.com --registrar sip:127.0.0.1:9 --duration 1) long
  long=$(head -c 250 /dev/zero | tr '\0' d)
  : >file
  mkdir -p taken/Tolvane.log
  usage_error 'log-level.*0 and 3, not 4' "${ok[@]}" --log-dir logs --log-level 4
  usage_error 'log-level.*not -1' "${ok[@]}" --log-dir logs --log-level=-1
  usage_error 'log-max-size.*2047 MiB, not 2048' "${ok[@]}" --log-dir logs --log-max-size 2048
  usage_error 'log-max-size.*not 0' "${ok[@]}" --log-dir logs --log-max-size 0
  usage_error 'log-files.*1 and 100, not 0' "${ok[@]}" --log-dir logs --log-files 0
  usage_error 'log-files.*not 101' "${ok[@]}" --log-dir logs --log-files 101
  usage_error 'without --log-dir' "${ok[@]}" --log-level 2
  usage_error 'empty' "${ok[@]}" --log-dir ''
  usage_error 'cannot be made: Not a directory' "${ok[@]}" --log-dir file/below
  usage_error 'cannot be written: Is a directory' "${ok[@]}" --log-dir taken
  usage_error 'too long' "${ok[@]}" --log-dir "$long"
  usage_error 'backslash' "${ok[@]}" --log-dir 'a\b'
  [[ ! -e $long && ! -e 'a\b' ]] || fail "a directory was made for a log that was refused"
}

# start_ordered NAME ARGUMENT...: a registrar that takes orders
start_ordered() {
  mkfifo "$dir/$1.fifo"
  exec {orders}<>"$dir/$1.fifo"
  orders_log="$dir/$1.log"
  registrar_in="$dir/$1.fifo" start_registrar "$@" --orders
}

# order LINE: its last line in $outcome
order() {
  local before i
  before=$(grep -cE '^(done|error): ' "$orders_log")
  echo "$1" >&"$orders"
  for ((i = 0; i < 200 * slack; ++i)); do
    (($(grep -cE '^(done|error): ' "$orders_log") > before)) && break
    sleep 0.05
  done
  outcome=$(grep -E '^(done|error): ' "$orders_log" | tail -n 1)
  [[ $outcome == done:* ]] || fail "order \"$1\": $outcome"
}

nothing_left() {  # WHAT
  order list
  [[ $outcome == 'done: 0 bindings, 0 subscriptions' ]] || fail "$1: the registrar still holds something: $outcome"
}

# expect_states FILE STATE,EVENT...: these state notifications and no others
expect_states() {
  local file=$1 found
  shift
  found=$(sed -n 's/.*"id":4098,.*<state>\(.*\)<\/state><event>\(.*\)<\/event>.*/\1,\2/p' "$file" | xargs)
  [[ $found == "$*" ]] || fail "${file##*/}: state notifications \"$found\" instead of \"$*\""
}

# What the registrar does to a binding, and what the client is notified of.
follow() {  # NAME REGISTRAR-ARGUMENTS -- TOLVANE-ARGUMENTS
  local name=$1 theirs=() pair aor=sip:alice@example.com contact count end
  shift
  while [[ $1 != -- ]]; do
    theirs+=("$1")
    shift
  done
  shift
  echo "follow: $name"
  start_ordered "$name" "${theirs[@]}"

  start_tolvane "$name" --json --subscribe "$@"
  wait_for 10 'Active.*registered' "$dir/$name.out"
  order "refresh $aor"
  order list
  contact=$(sed -n "s/^binding $aor \\([^ ,]*\\), .*/\\1/p" "$orders_log" | tail -n 1)
  order "create $aor $contact"
  wait_for 10 'Active.*created' "$dir/$name.out"
  # Somebody else's binding comes and goes: for the own one the last event is notified once more each time.
  order "create $aor sip:other@127.0.0.1:9"
  order "unregister $aor sip:other@127.0.0.1:9"
  count=$(grep -c 'REGISTER .* -> 200' "$orders_log")
  order "shorten $aor 100 $contact"
  wait_count 10 $((count + 1)) 'REGISTER .* -> 200' "$orders_log"
  kill -INT "$tolvane_pid"
  wait_exit 15 "$tolvane_pid"
  expect_status 0 "$name: deregistered"
  nothing_left "$name: deregistered"
  local states=(Active,registered Active,created Active,created Active,created)
  # The registrar's view may be faster than its response. A document that was on its way ends the registration
  # without an event word, and then the response gives no notification.
  if grep -q '<state>Terminate</state><event></event>' "$dir/$name.out"; then
    states+=(Terminate,)
  else
    grep -q Terminate "$dir/$name.out" && states+=(Terminate,unregistered)
    expect_line '"id":4097,' "$dir/$name.out" "$name: deregistered"
  fi
  expect_states "$dir/$name.out" "${states[@]}"

  for pair in expire,expired deactivate,deactivated probation,probation unregister,unregistered reject,rejected; do
    end="$name-${pair%,*}"
    start_tolvane "$end" --json --subscribe "$@"
    wait_for 10 'Active.*registered' "$dir/$end.out"
    order "${pair%,*} $aor"
    wait_exit 10 "$tolvane_pid"
    expect_status 1 "$end"
    nothing_left "$end"
    expect_states "$dir/$end.out" Active,registered "Terminate,${pair#*,}"
    [[ ! -s $dir/$end.err ]] || fail "$end: something stands on the standard error"
  done
  stop_registrar
  exec {orders}>&-
}

case_subscribe() {
  local secret="$dir/secret"
  echo secret >"$secret"
  follow proper -- --local 127.0.0.1:0
  follow partial --documents partial --versions zero --user alice --password-file "$secret" -- \
    --auth-user alice --auth-password-file "$secret"
  follow own_way --versions aor --contact-ids fresh --
}

case_subscribe_ends() {
  cd "$dir" || exit 1
  local aor=sip:alice@example.com i
  start_ordered ends
  echo "in words, with a log"
  start_tolvane words --subscribe --log-dir log --log-level 2
  wait_for 10 "own view: the binding stands (registered)" words.out
  order "probation $aor 30"
  wait_exit 10 "$tolvane_pid"
  expect_status 1 "the registrar ended it"
  expect_line 'Registration lost: .*for a while \(probation\).*--auto-reregister' words.out "in words"
  expect_line 'subscription 1 begins: sip:alice' log/Tolvane.log "the service's log"
  expect_line 'subscription 1 has ended: ' log/Tolvane.log "the service's log, to its end"
  expect_log log/Tolvane.log "$tolvane_pid"

  echo "registered again, but not where that is not wanted"
  start_tolvane again --subscribe --auto-reregister --reregister-interval 1
  for i in 1 2 3; do
    wait_count 10 "$i" 'view: the binding stands' again.out
    case $i in
      1) order "deactivate $aor" ;;
      2) order "unregister $aor" ;;
      3) order "reject $aor" ;;
    esac
  done
  wait_exit 10 "$tolvane_pid"
  expect_status 1 "rejected"
  [[ $(grep -c 'registered again in 1 s' again.out) == 2 ]] || fail "registered again more or less often than twice"
  nothing_left "rejected"

  echo "the registrar ends it during the deregistration"
  for i in 1 2 3; do
    start_tolvane "both$i" --subscribe
    wait_for 10 'binding stands' "both$i.out"
    kill -STOP "$registrar_pid"
    kill -INT "$tolvane_pid"
    wait_for 10 'Deregistering' "both$i.out"
    # Which of them is served first is chance.
    echo "unregister $aor" >&"$orders"
    kill -CONT "$registrar_pid"
    wait_exit 15 "$tolvane_pid"
    expect_status 0 "ended from both sides"
    [[ $(grep -c 'Deregistered: ' "both$i.out") == 1 ]] || fail "the deregistration is shown more or less than once"
    ! grep -q 'lost' "both$i.out" || fail "a deregistration is shown as a loss"
    nothing_left "ended from both sides"
  done

  echo "no view to be had"
  order "refuse-subscribe 489"
  start_tolvane none --subscribe
  wait_for 10 'does not give its own view' none.out
  kill -INT "$tolvane_pid"
  wait_exit 10 "$tolvane_pid"
  expect_status 0 "no view to be had"
  nothing_left "no view to be had"
  stop_registrar
}

have_ipv6() {
  if [[ ! -e /proc/net/if_inet6 ]] || ! grep -q '^0\{31\}1 ' /proc/net/if_inet6; then
    echo "this machine has no ::1"
    exit 77
  fi
}

case $case_name in
  roads_ipv4) roads 127.0.0.1 127.0.0.1:0 ;;
  roads_ipv6)
    have_ipv6
    roads ::1 '[::1]:0'
    ;;
  subscribe_ipv6)
    have_ipv6
    follow ipv6 --address ::1 --versions gaps -- --local '[::1]:0'
    ;;
  demo | usage | no_start | failures | refresh | ends | broken_output | comes_back | config | log | subscribe | subscribe_ends)
    "case_$case_name"
    ;;
  *)
    echo "there is no case $case_name"
    exit 2
    ;;
esac
((failures == 0)) && echo "passed: $case_name"
exit $((failures != 0))
