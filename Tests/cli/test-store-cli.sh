#!/usr/bin/env bash
# The store verbs as users run them without a running service: each works on
# a scratch profile store, and what one verb changes the next one sees.
set -u
veltrane=$1
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
export VELTRANE_STORE_DIR=$tmp/store XDG_RUNTIME_DIR=$tmp/run HOME=$tmp/home
mkdir -p "$tmp/run/veltrane" "$tmp/home/Documents"
# shellcheck source=../e2e/check.sh
. "$(dirname "$0")/../e2e/check.sh"

# Whether the command, given --json, prints one JSON document.
is_json() { "$@" --json 2>/dev/null | python3 -m json.tool >/dev/null; }

v() { "$veltrane" "$@"; }

# A socket that nobody serves any more is no service: the verbs go local.
python3 -c 'import socket,sys; socket.socket(socket.AF_UNIX).bind(sys.argv[1])' \
    "$tmp/run/veltrane/com.veltrane.automation"

expect "first profile" 0 "* Default" v profile list
expect "create activates" 0 "* Work" sh -c "\"$veltrane\" profile create Work && \"$veltrane\" profile list"
expect "duplicate name" 1 "已存在同名 profile「work」" v profile create work
expect "switch" 0 "Default" v profile switch default
expect "switch unknown" 1 "Nope" v profile switch Nope
expect "duplicate" 0 "Copy" sh -c "\"$veltrane\" profile duplicate Work Copy && \"$veltrane\" profile list"
expect "delete active hands on" 0 "active now: Copy" \
    sh -c "\"$veltrane\" profile switch Default >/dev/null && \"$veltrane\" profile delete Default"
expect "delete" 0 "deleted profile Work" v profile delete work
expect "last profile stays" 1 "至少保留一个 profile" v profile delete Copy
expect "export" 0 '"name": "Copy"' v profile export
sed 's/"name": "Copy"/"name": "Imported"/' <(v profile export Copy) >"$tmp/imported.json"
expect "import document" 0 "Imported" v profile import "$tmp/imported.json"
printf '{"name": 1}' >"$tmp/notprofile.json"
expect "import non-profile" 2 "notprofile.json" v profile import "$tmp/notprofile.json"

expect "proxy add" 0 "Local" v proxy add --name Local --address 127.0.0.1 --port 1080 --proto socks5
expect "proxy with user" 0 "Office" \
    v proxy add --name Office --address proxy.office --port 3128 --proto http --user u --password p
expect "proxy list" 0 "Local  socks5 127.0.0.1:1080" v proxy list
expect "proxy name taken" 1 "Local" v proxy add --name local --address h --port 1 --proto http
expect "proxy bad proto" 2 "proto" v proxy add --name X --address h --port 1 --proto ftp
expect "proxy without a host" 1 "proxy.address" v proxy add --name X --address "" --port 1 --proto http

expect "rule add" 0 "Web" v rule add --name Web --app curl --host '*.example.com' --port 443 \
    --action proxy:Local
expect "rule list" 0 "on   Web  → proxy:Local  apps: curl  hosts: *.example.com  ports: 443" \
    v rule list --search web
expect "rule unknown proxy" 1 "Nowhere" v rule add --name X --action proxy:Nowhere
expect "rule bad action" 1 "bogus" v rule add --name X --action bogus
expect "rule without action" 2 "--action" v rule add --name X
expect "rule with a port that does not read" 2 "is not a port" v rule add --name X --port 80-ab --action direct
expect "rule with an empty host" 2 "cannot be empty" v rule add --name X --host "" --action block
expect "rule disable" 0 "off  Web" sh -c "\"$veltrane\" rule disable Web && \"$veltrane\" rule list"
expect "rule update keeps the rest" 0 "on   Web  → block  apps: curl  hosts: *.example.com  ports: 80" \
    sh -c "\"$veltrane\" rule update web --enabled --port 80 --action block && \"$veltrane\" rule list"
printf '{"name":"Mail","enabled":true,"apps":["mutt"],"hosts":[],"ports":[],"action":"direct","locked":false}' \
    >"$tmp/rule.json"
expect "rule from json" 0 "Mail" v rule add --json-input "$tmp/rule.json"
expect "rule json and flags" 2 "excludes" v rule add --json-input "$tmp/rule.json" --name Y
printf '{"name":"Mail"}' >"$tmp/halfrule.json"
expect "rule json incomplete" 2 "not a rule" v rule add --json-input "$tmp/halfrule.json"
expect "rule remove" 0 "Web" v rule remove Web
expect "rule remove again" 1 "Web" v rule remove Web
expect "locked rule stays" 1 "Default" v rule remove Default

expect "route set" 0 "curl" v route set curl proxy:Office
expect "test-route active" 0 "route: proxy Office (proxy.office:3128 http)" \
    v test-route --app curl --host example.org --port 80
expect "test-route active udp" 0 "rule: App: curl" \
    v test-route --app curl --host example.org --port 443 --udp
expect "route bad target" 1 "nowhere" v route set curl nowhere

# A .ppx with the Local proxy under another name, a new one, and two rules.
cat >"$tmp/work.ppx" <<'EOF'
<?xml version="1.0" encoding="UTF-8"?>
<ProxifierProfile version="102"><ProxyList>
  <Proxy id="100" type="SOCKS5"><Address>127.0.0.1</Address><Port>1080</Port></Proxy>
  <Proxy id="200" type="HTTPS"><Address>10.1.1.1</Address><Port>8080</Port></Proxy>
</ProxyList><RuleList>
  <Rule enabled="true"><Name>Git</Name><Applications>git</Applications>
    <Action type="Proxy" proxy="200"/></Rule>
  <Rule enabled="true"><Name>Ads</Name><Targets>*.ads.example</Targets><Action type="Block"/></Rule>
</RuleList></ProxifierProfile>
EOF
expect "import ppx" 0 "imported 1 new proxies and 2 rules into profile Copy" v import "$tmp/work.ppx"
expect "imported rule routes" 0 "route: proxy 10.1.1.1:8080" \
    v test-route --app git --host example.org --port 22
expect "imported rule before Default" 0 "Ads  → block" sh -c "\"$veltrane\" rule list | tail -2"
expect "import into" 0 "into profile Imported" v import "$tmp/work.ppx" --into imported
expect "import into unknown" 1 "Nope" v import "$tmp/work.ppx" --into Nope
expect "import missing" 2 "missing.ppx" v import "$tmp/missing.ppx"
printf 'not xml' >"$tmp/broken.ppx"
expect "import broken" 2 "不是有效的 XML" v import "$tmp/broken.ppx"
expect "import foreign" 2 "无法识别的配置格式" v import "$tmp/rule.json"

cp "$tmp/work.ppx" "$tmp/home/Documents/found.ppx"
expect "discover" 0 "$tmp/home/Documents/found.ppx" v discover
expect "env bind unknown" 1 "" v env bind Nope
expect "env" 0 "network:" v env

check "profile list json" is_json v profile list
check "rule list json" is_json v rule list
check "proxy list json" is_json v proxy list
check "write verb json" is_json v rule enable Mail
check "test-route json" is_json v test-route --app curl --host example.org --port 80
check "import json" is_json v import "$tmp/work.ppx"
check "discover json" is_json v discover
check "env json" is_json v env

expect "unknown verb" 2 "" v rule frob
expect "verb needed" 2 "" v profile
expect "bad port" 2 "" v test-route --app a --host b --port 70000
expect "help" 0 "--json" v rule add --help

finish
