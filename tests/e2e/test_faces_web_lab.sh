#!/usr/bin/env bash
# hostrix-agent's web page and /metrics in the lab (OpenWrt profile, kernel names
# beside the gateway's): headless Chromium in the gateway
# namespace opens the page; the lab's hosts are rows, a host that joins appears
# within 4 s of having its address without a reload, a station that leaves greys
# out, and a host whose mDNS name is markup shows it as text and runs nothing. A
# screenshot is kept (HOSTRIX_UPDATE_SCREENSHOT=1 also copies it to the README's
# docs/connected-devices.png). /metrics parses with the Prometheus client's text
# parser and agrees with the lab; bad requests get 400, 404 and 405.
# e2e-profiles: openwrt
set -euo pipefail
LAB_PROFILE=openwrt
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

PAGE="http://127.0.0.1:8089"
DRIVER_PORT=9515
SYSTEM_PYTHON=/usr/bin/python3  # Debian's, with python3-prometheus-client
SCREENSHOT="${E2E_LOG_DIR:-/tmp}/hostrix-connected-devices.png"
README_SHOT="$REPO_DIR/docs/connected-devices.png"
EVIL_NAME='<img/src=x/onerror=alert(1)>'
EVIL_MAC="0a:77:00:00:00:41"
JOIN_MAC="0a:77:00:00:00:42"
LEAVER_MAC="0a:77:00:00:00:04"  # h4, a station on wlan0-vap0
ARRIVAL=150                      # 30 s in 0.2 s tries: a lease, a discovery tick, a poll
DRIVER_PID="" SESSION=""

# fetch PATH: the body, and the status on the last line, from inside the gateway.
fetch() {
    in_gw "$SYSTEM_PYTHON" - "$PAGE$1" "${2:-GET}" 2>/dev/null <<'PY'
import sys, urllib.request, urllib.error
try:
    with urllib.request.urlopen(urllib.request.Request(sys.argv[1], method=sys.argv[2]), timeout=5) as r:
        print(r.read().decode(), r.status, sep="\n")
except urllib.error.HTTPError as e:
    print(e.read().decode(), e.code, sep="\n")
PY
}
status_of() { [[ "$(fetch "$1" "${3:-GET}" | tail -n 1)" == "$2" ]]; }
fetched() { fetch "$1" | grep -qF -- "$2"; }

# The first event of /api/events for Last-Event-ID LAST (none: no header), as
# "ID TYPE SEQ": the SSE id, then the type and seq of its JSON.
first_event() {
    in_gw "$SYSTEM_PYTHON" - "$PAGE/api/events" "${1:-}" <<'PY'
import json, sys, urllib.request
request = urllib.request.Request(sys.argv[1], headers={"Last-Event-ID": sys.argv[2]} if sys.argv[2] else {})
event = {}
with urllib.request.urlopen(request, timeout=5) as stream:
    for field, _, value in (line.decode().rstrip("\n").partition(": ") for line in stream):
        event[field] = value
        if field == "data": break
data = json.loads(event["data"])
print(event["id"], data["type"], data["seq"])
PY
}
# Replays the newest event for an id one before it, and the snapshot for an id it does not hold.
replays_from_ring() {
    local last
    last="$(fetch /api/hosts | "$SYSTEM_PYTHON" -c 'import json,sys; print(json.loads(sys.stdin.readline())["seq"])')"
    [[ "$(first_event $((last - 1)))" == "$last event $last" && "$(first_event 1)" == "$last snapshot $last" ]]
}

# wd COMMAND ARGS...: one step of WebDriver (chromedriver's HTTP protocol).
wd() {
    in_gw "$SYSTEM_PYTHON" - "$DRIVER_PORT" "$SESSION" "$@" <<'PY'
import base64, json, sys, urllib.request, urllib.error
port, session, command, *args = sys.argv[1:]
def call(method, path, body=None):
    request = urllib.request.Request(f"http://127.0.0.1:{port}/session{path}", method=method,
        data=None if body is None else json.dumps(body).encode(), headers={"Content-Type": "application/json"})
    try:
        with urllib.request.urlopen(request, timeout=60) as reply: return json.load(reply)["value"]
    except urllib.error.HTTPError as e: return {"error": json.load(e)["value"].get("error")}
if command == "start":  # start URL PROFILE_DIR: prints the session id
    flags = ("--headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking"
             " --disable-component-update --disable-sync --window-size=1200,640 --user-data-dir=" + args[1]).split()
    value = call("POST", "", {"capabilities": {"alwaysMatch": {"browserName": "chrome",
        "unhandledPromptBehavior": "ignore",
        "goog:chromeOptions": {"binary": "/usr/bin/chromium", "args": flags}}}})
    print(value["sessionId"])
    call("POST", f"/{value['sessionId']}/url", {"url": args[0]})
elif command == "js":  # js SCRIPT: the script's value, a string as it is, anything else as JSON
    value = call("POST", f"/{session}/execute/sync", {"script": args[0], "args": []})
    print(value if isinstance(value, str) else json.dumps(value))
elif command == "alert":  # the text of an open dialog, or nothing
    print(value if isinstance(value := call("GET", f"/{session}/alert/text"), str) else "")
elif command == "shot":
    open(args[0], "wb").write(base64.b64decode(call("GET", f"/{session}/screenshot")))
elif command == "stop":
    call("DELETE", f"/{session}")
PY
}

# Rows of the table: "MAC" or "MAC gone", one a line.
rows() { wd js "return [...document.querySelectorAll('tbody tr')].map(r => r.dataset.mac + (r.classList.contains('gone') ? ' gone' : '')).join('\n')"; }
row_is() { rows | grep -qx "$1"; }
lab_rows_shown() { [[ "$(rows | grep -cxE '0a:77:00:00:00:0[1-5]')" == 5 ]]; }
name_cell() { wd js "const td = document.querySelector('tr[data-mac=\"$1\"] td'); return td ? td.firstChild.textContent : ''"; }
name_is_text() { [[ "$(name_cell "$EVIL_MAC")" == "$EVIL_NAME" ]]; }
no_markup() { [[ "$(wd js "return document.querySelectorAll('tbody img').length")" == 0 ]]; }
not_reloaded() { [[ "$(wd js "return window.hxMarker === 1")" == true ]]; }

# The metrics page parsed by the Prometheus client; prints what is wrong, nothing if all agrees.
metrics_problems() {
    in_gw "$SYSTEM_PYTHON" - "$PAGE" "$LEAVER_MAC" <<'PY'
import json, sys, urllib.request
from prometheus_client.parser import text_string_to_metric_families
page, gone = sys.argv[1:]
hosts = json.load(urllib.request.urlopen(page + "/api/hosts"))["hosts"]
online = {h["mac"] for h in hosts}
families = {f.name: f for f in text_string_to_metric_families(urllib.request.urlopen(page + "/metrics").read().decode())}
def samples(name):  # a counter's family drops the _total of its samples
    family = families.get(name.removesuffix("_total"))
    return [s for s in family.samples if s.name == name] if family else []
problems = ["hosts_online != /api/hosts"] * ([s.value for s in samples("hostrix_hosts_online")] != [len(online)])
for family in ("hostrix_host_receive_bytes", "hostrix_host_transmit_bytes"):
    macs = {s.labels["mac"] for s in samples(family + "_total")}
    if macs != online: problems.append(f"{family} macs {sorted(macs ^ online)} differ from the online hosts")
    if gone in macs: problems.append(f"{family} has the departed host")
events = {s.labels["event"]: s.value for s in samples("hostrix_events_total")}
if events.get("new", 0) < len(online) or events.get("left", 0) < 1: problems.append(f"events {events}")
problems += ["no " + name for name in ("process_cpu_seconds_total", "process_resident_memory_bytes",
             "process_open_fds", "process_start_time_seconds") if not samples(name)]
if not {"0a:77:00:00:00:01", "0a:77:00:00:00:05"} <= online: problems.append("lab hosts missing")
print("; ".join(problems))
PY
}
metrics_agree() { local problems; problems="$(metrics_problems 2>&1)"; [[ -z "$problems" ]] || ! echo "    $problems" >&2; }

agent_rss_kb() { awk '/^VmRSS/ { print $2 }' "/proc/$AGENT_PID/status"; }

stop_browser() { [[ -z "$SESSION" ]] || wd stop >/dev/null 2>&1 || true; stop_pid "$DRIVER_PID" || true; }

main() {
    agent_test_setup web stop_browser
    [[ -x /usr/bin/chromium ]] || skip "needs chromium and chromium-driver (make check installs them)"
    require_tools chromedriver
    "$SYSTEM_PYTHON" -c 'import prometheus_client' 2>/dev/null || skip "needs python3-prometheus-client"

    start_daemon_in_lab
    agent_start
    check "the agent serves the page" wait_for 50 status_of / 200
    check "the lab's hosts are in /api/hosts" wait_for "$ARRIVAL" fetched /api/hosts 0a:77:00:00:00:05
    check "a bad MAC gets 400, an unknown device or path 404, POST 405" eval 'status_of /api/history/not-a-mac 400 &&
        status_of /api/history/0a:77:00:00:09:99 404 && status_of /nothing-here 404 && status_of /api/hosts 405 POST'
    check "a lab host has a detail with its open session" wait_for 25 fetched /api/history/0A-77-00-00-00-01 '"until":null}' 
    local rss_before
    rss_before="$(agent_rss_kb)"

    setsid ip netns exec "$GW_NS" chromedriver --port="$DRIVER_PORT" </dev/null >"$E2E_TMP/chromedriver.log" 2>&1 &
    DRIVER_PID=$!
    wait_for 50 in_gw "$SYSTEM_PYTHON" -c 'import urllib.request, sys; urllib.request.urlopen(sys.argv[1])' \
        "http://127.0.0.1:$DRIVER_PORT/status" 2>/dev/null || true
    SESSION="$(wd start "$PAGE/" "$E2E_TMP/chromium")"
    check "Chromium opened the page" test -n "$SESSION"
    check "the lab's hosts are rows" wait_for 50 lab_rows_shown
    wd js "window.hxMarker = 1" >/dev/null

    check "a host joins; it appears within 4 s, without a reload" \
        eval 'lab_run add-host joiner eth0.5 --mac "$JOIN_MAC" --hostname joiner && wait_for 20 row_is "$JOIN_MAC"'
    check "a static host joins" lab_run add-host evil eth0.3 --static 10.77.0.61 --mac "$EVIL_MAC"
    # It answers the gateway first, so that its address is known when the name comes.
    check "it announces markup as its mDNS name" \
        eval 'in_ns hx-evil busybox ping -q -c 1 -W 2 10.77.0.1 >/dev/null && announce_mdns evil "$EVIL_NAME" 10.77.0.61'
    check "its name shows as text" wait_for "$ARRIVAL" name_is_text
    check "the name made no element" no_markup
    check "no script ran (no dialog open)" test -z "$(wd alert)"
    check "a station leaves; it greys out" eval 'lab_run sta-leave h4 && wait_for "$ARRIVAL" row_is "$LEAVER_MAC gone"'
    check "the page was never reloaded" not_reloaded
    wd shot "$SCREENSHOT"
    check "a screenshot is saved" test -s "$SCREENSHOT"
    if [[ "${HOSTRIX_UPDATE_SCREENSHOT:-0}" == 1 ]]; then cp -- "$SCREENSHOT" "$README_SHOT"; fi
    printf 'agent VmRSS: %s kB before the page, %s kB with it open\n' "$rss_before" "$(agent_rss_kb)"

    check "Last-Event-ID replays from the ring, under the ring's numbers" replays_from_ring
    check "/metrics parses and agrees with the lab and /api/hosts" wait_for 25 metrics_agree
    finish
}

main "$@"
