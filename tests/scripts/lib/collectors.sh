# Real log collectors for the tests, each in the test's own directory and
# stopped by its pid: rsyslogd with a configuration of the test's own, and
# systemd-journald in a journal namespace of the test's own. Sourced after
# common.sh (which provides $tmp and fail).

# A free TCP or UDP port on the loopback interface.
freePort() {  # tcp|udp
  local p
  for _ in $(seq 50); do
    p=$((20000 + RANDOM % 40000))
    ss -H -"${1:0:1}"ln "sport = :$p" | grep -q . || { echo $p; return; }
  done
  fail "no free $1 port"
}

# rsyslogd NAME [forward-port]: a daemon in $tmp/NAME with imuxsock on
# $tmp/NAME/log.sock, imudp and imtcp on free loopback ports (written to
# $tmp/NAME/udp and $tmp/NAME/tcp), every record parsed as RFC 5424 and written
# as one JSON line to $tmp/NAME/records.json; with forward-port it also
# forwards every record over TCP to that port, as a site forwards to its
# central server.
startRsyslog() {
  local name=$1 fwd=${2:-} dir=$tmp/$1 udp tcp
  mkdir -p "$dir/work"
  udp=${RSYSLOG_UDP:-$(freePort udp)}; tcp=${RSYSLOG_TCP:-$(freePort tcp)}
  echo "$udp" >"$dir/udp"; echo "$tcp" >"$dir/tcp"
  cat >"$dir/rsyslog.conf" <<CONF
global(workDirectory="$dir/work" maxMessageSize="64k" parser.escapeControlCharactersOnReceive="off")
module(load="imuxsock" SysSock.Use="off")
input(type="imuxsock" Socket="$dir/log.sock" UseSpecialParser="off" ParseHostname="on"
      CreatePath="on" RateLimit.Interval="0")
module(load="imudp")
input(type="imudp" address="127.0.0.1" port="$udp")
module(load="imtcp")
input(type="imtcp" address="127.0.0.1" port="$tcp")
template(name="json" type="list" option.jsonf="on") {
  property(outname="pri" name="pri" format="jsonf")
  property(outname="facility" name="syslogfacility" format="jsonf")
  property(outname="severity" name="syslogseverity" format="jsonf")
  property(outname="timestamp" name="timereported" dateFormat="rfc3339" format="jsonf")
  property(outname="hostname" name="hostname" format="jsonf")
  property(outname="app" name="app-name" format="jsonf")
  property(outname="procid" name="procid" format="jsonf")
  property(outname="msgid" name="msgid" format="jsonf")
  property(outname="sd" name="structured-data" format="jsonf")
  property(outname="msg" name="msg" format="jsonf")
  property(outname="input" name="inputname" format="jsonf")
}
action(type="omfile" file="$dir/records.json" template="json")
CONF
  [ -n "$fwd" ] && cat >>"$dir/rsyslog.conf" <<CONF
action(type="omfwd" target="127.0.0.1" port="$fwd" protocol="tcp"
       TCP_Framing="octet-counted" template="RSYSLOG_SyslogProtocol23Format"
       queue.type="LinkedList" action.resumeRetryCount="-1")
CONF
  rsyslogd -n -f "$dir/rsyslog.conf" -i "$dir/rsyslogd.pid" >"$dir/rsyslogd.out" 2>&1 &
  collectorPids+=($!)
  for _ in $(seq 100); do
    [ -S "$dir/log.sock" ] && ss -Htln "sport = :$tcp" | grep -q . && return 0
    sleep 0.1
  done
  cat "$dir/rsyslogd.out" >&2
  fail "rsyslogd $name did not start"
}

# systemd-journald in namespace $journalNs; its socket is $journalSocket.
startJournald() {
  journalNs=zartest$$
  journalSocket=/run/systemd/journal.$journalNs/socket
  /lib/systemd/systemd-journald "$journalNs" >"$tmp/journald.out" 2>&1 &
  collectorPids+=($!)
  for _ in $(seq 100); do [ -S "$journalSocket" ] && return 0; sleep 0.1; done
  cat "$tmp/journald.out" >&2
  fail "systemd-journald did not start"
}

# journalctl of the test's namespace, JSON lines.
journalJson() { journalctl --namespace="$journalNs" -o json --no-pager "$@"; }

# Stops every collector by its pid and removes the journal namespace's files
# (its socket directory and its journal directory, nothing else).
stopCollectors() {
  local pid id
  for pid in "${collectorPids[@]}"; do kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; done
  [ -n "${journalNs:-}" ] || return 0
  rm -rf "/run/systemd/journal.$journalNs"
  id=$(cat /etc/machine-id 2>/dev/null || true)
  [ -n "$id" ] && rm -rf "/var/log/journal/$id.$journalNs" "/run/log/journal/$id.$journalNs"
}
collectorPids=()
trap 'stopCollectors; rm -rf "$tmp"' EXIT
