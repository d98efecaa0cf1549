#!/usr/bin/env bash
# A short real session of the notificationdb tool: a watcher process listens for the change
# notice while other processes receive a batch of notifications, list them, mark one read and
# check the file.
#
#   demo.sh NOTIFICATIONDB [--real-home] [--keep]
#
# By default everything happens below a fresh temporary HOME and XDG_DATA_HOME, so the user's
# own notification database is never touched. --real-home works on the user's database instead;
# --keep leaves the temporary directory in place for a look afterwards.
set -euo pipefail

usage() {
    echo "usage: $0 NOTIFICATIONDB [--real-home] [--keep]" >&2
    exit 2
}

(($# >= 1)) || usage
TOOL="$(cd "$(dirname "$1")" && pwd)/$(basename "$1")"
shift
[[ -x "$TOOL" ]] || {
    echo "demo: $TOOL is not an executable" >&2
    exit 2
}
REAL_HOME=0
KEEP=0
for argument in "$@"; do
    case "$argument" in
        --real-home) REAL_HOME=1 ;;
        --keep) KEEP=1 ;;
        *) usage ;;
    esac
done

# The change notice travels on the D-Bus session bus; without one, start a private bus for the
# length of the demo.
if [[ -z "${DBUS_SESSION_BUS_ADDRESS:-}" ]]; then
    if command -v dbus-run-session >/dev/null 2>&1 && [[ -z "${NOTIFICATIONDB_DEMO_ON_PRIVATE_BUS:-}" ]]; then
        export NOTIFICATIONDB_DEMO_ON_PRIVATE_BUS=1
        exec dbus-run-session -- bash "${BASH_SOURCE[0]}" "$TOOL" "$@"
    fi
    echo "demo: no session bus and no dbus-run-session; the watcher will hear nothing" >&2
fi

WORK="$(mktemp -d "${TMPDIR:-/tmp}/notificationdb-demo.XXXXXX")"
WATCHER_PID=""
cleanup() {
    if [[ -n "$WATCHER_PID" ]]; then kill "$WATCHER_PID" 2>/dev/null || true; fi
    if ((KEEP)); then
        echo "demo: kept $WORK"
    else
        rm -rf "$WORK"
    fi
}
trap cleanup EXIT

if ((!REAL_HOME)); then
    export HOME="$WORK/home"
    export XDG_DATA_HOME="$HOME/.local/share"
    mkdir -p "$XDG_DATA_HOME"
fi

if [[ -t 1 ]]; then
    step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
else
    step() { printf '\n== %s\n' "$*"; }
fi
show() {
    printf '$ notificationdb %s\n' "$*"
    "$TOOL" "$@"
}

# A date `$1` seconds before now, in the tool's date text form (UTC).
ago() {
    local epoch=$(($(date -u +%s) - $1))
    date -u -d "@$epoch" '+%Y-%m-%d %H:%M:%S' 2>/dev/null || date -u -r "$epoch" '+%Y-%m-%d %H:%M:%S'
}

step "database"
DATABASE="$("$TOOL" path)"
echo "this demo works on $DATABASE"

# Notices expected: four stored notifications (the two duplicates are skipped), the pruning of
# the old one, and marking one read: one notice per committed change of the stored notifications.
EXPECTED_NOTICES=6
step "a watcher in another process listens for databaseUpdatedNotification"
"$TOOL" watch --count "$EXPECTED_NOTICES" --timeout 20 >"$WORK/watch.out" 2>"$WORK/watch.err" &
WATCHER_PID=$!
for _ in $(seq 100); do
    grep -q 'watching' "$WORK/watch.err" 2>/dev/null && break
    kill -0 "$WATCHER_PID" 2>/dev/null || break
    sleep 0.05
done
cat "$WORK/watch.err"

step "a batch from the service"
NOW_EPOCH=$(date -u +%s)
cat >"$WORK/batch.json" <<EOF
[
  {"notification": {"id": 101, "customerId": "customer-1", "createdDate": "$(ago 300)",
    "version": "3.2.0", "analyticsTag": "release", "title": "Vantro 3.2 is out",
    "body": "Restart to update.", "isMarketing": false, "status": "new",
    "notificationKind": "vantroUpdate"},
   "notificationButton": {"buttonId": "restart", "title": "Restart now", "visible": true,
    "actionKind": "openVantro", "userAction": "eyJyZXN0YXJ0Ijp0cnVlfQ=="}},
  {"notification": {"id": 102, "customerId": "customer-1", "createdDate": $((NOW_EPOCH - 3600)),
    "version": "1.4", "analyticsTag": "unusedApps", "title": "Photo Lab has an update",
    "body": null, "isMarketing": false, "appId": 4711, "status": "new",
    "notificationKind": "appUpdate"},
   "notificationButton": {"buttonId": "open-app", "title": "Open", "visible": true,
    "actionKind": "openApp", "userAction": "NDcxMQ=="}},
  {"notification": {"id": 103, "customerId": "customer-1", "createdDate": "$(ago 7200)",
    "version": "", "analyticsTag": "weekly", "title": "Apps for the weekend",
    "bannerUrl": "https://example.org/banner.png", "isMarketing": true, "status": "new",
    "notificationKind": "newApp"}},
  {"notification": {"id": 101, "customerId": "customer-1", "createdDate": "$(ago 60)",
    "version": "3.2.0", "analyticsTag": "release", "title": "same id as the first: dropped",
    "isMarketing": false, "status": "new", "notificationKind": "vantroUpdate"}},
  {"notification": {"id": 104, "customerId": "customer-1", "createdDate": "$(ago 120)",
    "version": "1.4", "analyticsTag": "unusedApps", "title": "same customer, kind, version and app as 102",
    "isMarketing": false, "appId": 4711, "status": "new", "notificationKind": "appUpdate"}},
  {"notification": {"id": 105, "customerId": "customer-2", "createdDate": "$(ago $((45 * 86400)))",
    "version": "0.9", "analyticsTag": "old", "title": "45 days old: stored, then pruned",
    "isMarketing": false, "status": "new", "notificationKind": "default"}}
]
EOF
echo "6 entries: 101, 102, 103; 101 again (same id: the first one is kept); 104 (same customer, kind,"
echo "version and app as 102: whichever the updater saves first is kept); 105 (45 days old: pruned)"
show receive "$WORK/batch.json"

step "what is stored now"
show list
show count

step "the user reads notification 101"
show mark --status read 101
show list --ids 101

step "the file as support sees it first: read, never changed"
show check

step "the store's answers"
show contains-version 3.2.0 || true
show contains --kind appUpdate --customer customer-1 --app-id 4711 || true
show contains --kind ai --customer customer-1 || true

step "what the watcher heard"
WATCH_STATUS=0
wait "$WATCHER_PID" || WATCH_STATUS=$?
WATCHER_PID=""
cat "$WORK/watch.out"
if ((WATCH_STATUS == 0)); then
    echo "heard all $EXPECTED_NOTICES notices"
else
    tail -n +2 "$WORK/watch.err"
    echo "the watcher ended with status $WATCH_STATUS"
fi

step "done"
echo "database file: $DATABASE"
if ((!REAL_HOME && !KEEP)); then
    echo "(a temporary directory, removed now; run with --keep to look at it afterwards)"
fi
