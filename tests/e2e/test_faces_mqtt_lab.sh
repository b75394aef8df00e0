#!/usr/bin/env bash
# hostrix-agent publishing to Home Assistant over MQTT, with a real mosquitto broker
# in the gateway namespace: a broker that is down at start does not stop the agent
# serving its subscribers; once the broker is up, a retained discovery config
# (every field Home Assistant needs), state "home" and attributes appear for every
# lab host, and "online" on hostrix/status; a station that leaves turns not_home;
# a broker restarted without its store gets every config and state again; a stray
# "offline" is answered; a stopped agent leaves "offline", and so does a killed
# one's last will.
set -euo pipefail
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

BROKER_PORT=18830
BROKER_PID="" LIVE_PID=""
ARRIVAL=150 # 30 s in 0.2 s tries: a lease, a discovery tick, a poll
RECONNECT=350 # 70 s: the back-off after a failed attempt is at most 60 s
RETAINED=60   # tries of retained_now (over 1 s each): a minute

# No persistence: a restart loses every retained message, as a broker that lost its store.
broker_start() {
    printf 'listener %s 127.0.0.1\nallow_anonymous true\npersistence false\n' "$BROKER_PORT" >"$E2E_TMP/mosquitto.conf"
    setsid ip netns exec "$GW_NS" mosquitto -c "$E2E_TMP/mosquitto.conf" </dev/null >>"$E2E_TMP/mosquitto.log" 2>&1 &
    BROKER_PID=$!
}
broker_up() { in_gw mosquitto_sub -p "$BROKER_PORT" -t probe -W 1 -E >/dev/null 2>&1; }

# Every message from now on, as "RETAIN TOPIC PAYLOAD" lines (MQTT 5 keeps the flag
# as the agent set it).
live_subscribe() {
    in_gw mosquitto_sub -p "$BROKER_PORT" -V mqttv5 --retain-as-published -t 'homeassistant/#' -t 'hostrix/#' \
        -F '%r %t %p' >>"$E2E_TMP/live.txt" 2>/dev/null &
    LIVE_PID=$!
}
# What a newcomer finds: the retained messages only, in retained.txt.
retained_now() {
    in_gw mosquitto_sub -p "$BROKER_PORT" -t 'homeassistant/#' -t 'hostrix/#' -F '%r %t %p' \
        --retained-only -W 1 >"$E2E_TMP/retained.txt" 2>/dev/null || true
}

# mqtt_check FILE WHAT MAC...: the messages in FILE describe each MAC as WHAT says
# (config: a discovery config with every field; home / not_home: that last state;
# ip=ADDRESS: that address in the last attributes). Prints what is wrong.
mqtt_check() {
    python3 - "$@" <<'PY'
import json, sys
path, what, *macs = sys.argv[1:]
last = {}
for line in open(path, errors="replace"):
    retain, topic, *payload = line.rstrip("\n").split(" ", 2) + ["", ""]
    last[topic] = (retain, payload[0])
for mac in macs:
    base = "hostrix/" + mac
    if what == "config":
        topic = "homeassistant/device_tracker/hostrix_" + mac.replace(":", "") + "/config"
        retain, config = last.get(topic, ("0", "{}"))
        config = json.loads(config)
        want = {"source_type": "router", "unique_id": "hostrix_" + mac.replace(":", ""),
                "state_topic": base + "/state", "json_attributes_topic": base + "/attributes",
                "payload_home": "home", "payload_not_home": "not_home",
                "availability_topic": "hostrix/status"}
        wrong = [k for k, v in want.items() if config.get(k) != v]
        device = config.get("device", {})
        wrong += ["device"] * (device.get("connections") != [["mac", mac]] or not device.get("name"))
        wrong += ["retain"] * (retain != "1")
        wrong and print(mac, "config:", ",".join(wrong))
    elif what.startswith("ip="):
        retain, payload = last.get(base + "/attributes", ("0", "{}"))
        if json.loads(payload).get("ip") != what[3:] or retain != "1":
            print(mac, "attributes:", payload)
    elif last.get(base + "/state") != ("1", what):
        print(mac, "state:", last.get(base + "/state"))
PY
}
described() { [[ -z "$(mqtt_check "$@" 2>&1)" ]]; }
live_describes() { described "$E2E_TMP/live.txt" "$@"; }
retained_describes() { retained_now && described "$E2E_TMP/retained.txt" "$@"; }
status_is() { retained_now && grep -qx "1 hostrix/status $1" "$E2E_TMP/retained.txt"; }

# The agent answers a subscriber with its snapshot within 3 s.
agent_serves() {
    timeout 3 python3 -c 'import socket, sys
s = socket.socket(socket.AF_UNIX); s.connect(sys.argv[1]); s.sendall(b"{}\n")
sys.exit(not s.makefile("rb").readline().startswith(b"{\"type\":\"snapshot\""))' "$AGENT_SOCKET" 2>/dev/null
}
stop_mqtt() { stop_pid "$LIVE_PID" || true; stop_pid "$BROKER_PID" || true; }

main() {
    local macs=() name
    agent_test_setup mqtt stop_mqtt
    require_tools mosquitto mosquitto_sub mosquitto_pub

    start_daemon_in_lab
    for name in "${LAB_HOSTS[@]}"; do macs+=("$(host_mac "$name")"); done
    printf 'mqtt_url = mqtt://127.0.0.1:%s\n' "$BROKER_PORT" >"$ROOT/etc/hostrix/agent.conf"

    agent_start
    check "with the broker down, the agent still serves subscribers" wait_for 50 agent_serves
    check "it says once that the broker is not reachable" wait_for 25 agent_logged "MQTT broker 127.0.0.1:$BROKER_PORT: Connection refused"

    broker_start
    check "the broker is up" wait_for 50 broker_up
    live_subscribe
    check "the agent connects once the broker is up" wait_for "$RECONNECT" agent_logged "connected; publishing"
    check "every lab host gets a retained discovery config" wait_for "$ARRIVAL" live_describes config "${macs[@]}"
    check "every lab host is home, retained" wait_for 25 live_describes home "${macs[@]}"
    check "h1's attributes carry its leased address" \
        wait_for 25 live_describes "ip=$(lease_ip_of "${macs[0]}")" "${macs[0]}"
    check "hostrix/status is online, retained" wait_for 15 status_is online

    check "h3 leaves and turns not_home" eval 'lab_run sta-leave h3 && wait_for "$ARRIVAL" live_describes not_home "${macs[2]}"'

    stop_pid "$BROKER_PID" || true
    broker_start
    check "the broker is up again, empty" wait_for 50 broker_up
    check "after the restart every config is back" wait_for "$RETAINED" retained_describes config "${macs[@]}"
    check "after the restart the states are back, h3 still not_home" eval 'retained_describes home "${macs[@]:0:2}" "${macs[@]:3}" &&
        described "$E2E_TMP/retained.txt" not_home "${macs[2]}"'
    check "after the restart hostrix/status is online" status_is online

    in_gw mosquitto_pub -p "$BROKER_PORT" -r -t hostrix/status -m offline
    check "a stray retained offline is answered with online" wait_for 15 status_is online
    printf '    agent VmRSS with MQTT: %s\n' "$(awk '/VmRSS/ { print $2, $3 }' "/proc/$AGENT_PID/status")"

    stop_pid "$AGENT_PID" || true
    check "a stopped agent leaves hostrix/status offline" status_is offline
    agent_start
    check "a new agent says online" wait_for 15 status_is online
    kill -KILL "$AGENT_PID"
    check "a killed agent's last will says offline" wait_for 15 status_is offline
    finish
}

main "$@"
