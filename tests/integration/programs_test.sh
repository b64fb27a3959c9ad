#!/usr/bin/env bash
# The built library and programs, used from outside. usage: programs_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
source=$1 build=$2
work=$(mktemp -d)
device=$build/examples/device # compiled into the example of a platform layer
. "$source/scripts/service-functions"
trap 'stop_all; rm -rf "$work" "$device"' EXIT
trap 'echo "failed: $BASH_COMMAND" >&2' ERR
unset https_proxy HTTPS_PROXY all_proxy ALL_PROXY no_proxy NO_PROXY

post() {
    # shellcheck disable=SC2086
    ${LAUNCHER:-} "$build/atls-post" "$@"
}

passed=0
check() { # check WHAT EXPECTED ACTUAL
    [ "$2" = "$3" ] || { printf 'FAILED: %s\nexpected: %s\nactual:   %s\n' "$1" "$2" "$3" >&2; exit 1; }
    passed=$((passed + 1))
}
status_of() { # runs a command, prints its exit status; what it writes is in $work/out and $work/err
    local status=0
    "$@" >"$work/out" 2>"$work/err" </dev/null || status=$?
    echo "$status"
}

# Exactly the documented symbols, each of them defined.
listed() { sed -n '/global:/,/local:/s/^ *\([A-Za-z0-9_]*\);$/\1/p' "$1" | sort; }
exported() { nm -D --defined-only "$1" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | sort; }
check "symbols of libatls.so" "$(listed "$source/libatls.map")" "$(exported "$build/libatls.so")"
check "symbols of the platform" "$(listed "$source/platform/platform.map")" "$(exported "$build/libatls-platform.so" | grep -v atls_platform_time64)"
check "stays loaded, for its thread" 1 "$(readelf -d "$build/libatls.so" | grep -c NODELETE)"
check "soname" libatls.so.1 "$(objdump -p "$build/libatls.so" | awk '$1 == "SONAME" { print $2 }')"

check "the README shows the example" "" "$(sed -n '/^```c$/,/^```$/{/^```/d;p}' "$source/README.md" | diff - "$source/examples/post.c")"

# A device's own platform layer is used when it stands in the library path, its stime included. The right to set the
# clock is given up first, in case it is not.
check "replaced platform" "stime of the platform called: 1" \
    "$(LD_LIBRARY_PATH=$build/tests/double setpriv --bounding-set=-sys_time --inh-caps=-sys_time \
        "$build/tests/platform-caller" 2>"$work/err")"
check "nothing said by the loader" "" "$(cat "$work/err")"

"$source/scripts/make-identity" "$work"
export ATLS_PLATFORM_DIR=$work/device
start_service
service_port=${service_url##*:}
url=$service_url/atls

check "a message" "0 hello " "$(status_of post "$url" hello) $(cat "$work/out" "$work/err") "
check "from the standard input" piped "$(echo -n piped | post "$url")"
head -c 300000 /dev/urandom >"$work/big"
post -n 3 -o "$work/answer" "$url" "@$work/big"
check "three answers" "$(cat "$work/big" "$work/big" "$work/big" | sha256sum)" "$(sha256sum <"$work/answer")"
check "the header block" "TrackingID: t-1" \
    "$(post -i --ip 127.0.0.1 --tracking-id t-1 "https://elsewhere.invalid:$service_port/" x | tr -d '\r' | grep Tr)"
check "the example" hallo "$("$build/example-post" 127.0.0.1 "$service_port" /atls hallo 2>"$work/err")"
check "the front end saw no message" "" "$(grep -lr -e hello -e hallo -e piped "$work/seen" || true)"
check "the log" "atls-post: atls_connect: ATLS connection to 127.0.0.1 established" \
    "$(status_of post --log notice "$url" x >"$work/status"; grep established "$work/err")"
check "the trace" 1 "$(status_of post --trace "$url" x >"$work/status"; grep -c '< HTTP/1.1 200 OK' "$work/err" | sed 's/[2-9]/1/')"

# The example of a device's own platform layer, complete and without anything of the stand-in's.
install -D -t "$device" "$work/device/truststore.pem"
cp "$work/device/device-cert.der" "$device/certificate.der"
openssl pkcs8 -topk8 -nocrypt -inform DER -in "$work/device/device-key.der" -outform DER -out "$device/key.pk8"
device_post() { ATLS_PLATFORM_DIR=/none LD_BIND_NOW=1 LD_LIBRARY_PATH=$build/examples post "$url" hello; }
check "another platform" "hello Throwaway device, User-Agent Halvo-Example/example-1.0" \
    "$(device_post) $(sed -n 's/.*, device certificate .CN=//p' "$work/service.log" | tail -n 1)"
cp "$work/service/device-ca.pem" "$device/truststore.pem"
check "it verifies the service" 3 "$(status_of device_post)"
cp "$work/device/truststore.pem" "$device"
head -c 4096 /dev/zero >>"$device/key.pk8"
check "it truncates no key" 2 "$(status_of device_post)"

start_bus
start_proxy proxy && echo "function FindProxyForURL() { return 'PROXY 127.0.0.1:1; PROXY 127.0.0.1:$port'; }" >"$work/pac"
start_proxy_manager --pac "$work/pac"
check "the explanation" "x
  proxies offered PROXY 127.0.0.1:1; PROXY 127.0.0.1:$port
  passed over     127.0.0.1:1: TEXT (libcurl's result 7), after TIME
  carried by      127.0.0.1:$port, connected to 127.0.0.1 port $port
  inner session   TLSv1.3, TLS_AES_256_GCM_SHA384
  status          200
  cookies kept    atls-session
  tracking id     none" \
    "$(status_of post --explain "$url" x >"$work/status"; cat "$work/out"; echo
        sed -n '/^  proxies/,/^  tracking/{s/[0-9.]* s$/TIME/;s/: [A-Z].* (lib/: TEXT (lib/;p}' "$work/err")"
check "nothing but the explanation" "" "$(grep -v -e '^  ' -e "^atls-post: $url" "$work/err" || true)"
check "no words of a peer in the explanation" "" \
    "$(status_of post --explain --log debug -n 2 "$url" "x connect with http proxy:evil" >"$work/status"; grep '^  .*evil' "$work/err" || true)"
check "no proxy manager" "  proxies offered none: the proxy manager cannot be reached" \
    "$(DBUS_SYSTEM_BUS_ADDRESS=unix:path=/none status_of post --explain "$url" x >"$work/status"; grep offered "$work/err")"
check "explained failure" "3   carried by      nothing" "$(status_of post --explain https://127.0.0.1:1/ x) $(grep carried "$work/err")"
stop proxy-manager
stop bus

# Wrong usage: status 64 and one line; the library's own results otherwise.
while IFS='|' read -r expected arguments; do
    eval "set -- $arguments"
    check "atls-post $arguments" "$expected 1" "$(status_of post "$@") $(wc -l <"$work/err")"
done <<TABLE
64|
64|http://127.0.0.1/ x
64|https://host:80x/ x
64|$url @/no/such/file
64|--tracking-id $'a\\r\\nb' $url x
64|-o /no/such/file $url x
64|--no-such-option $url x
1|https://127.0.0.1:65536/ x
3|https://127.0.0.1:1/ x
TABLE
echo kept >"$work/answer"
check "a failed post keeps the file" "2 kept" \
    "$(export ATLS_PLATFORM_DIR=/none; status_of post -o "$work/answer" "$url" x) $(cat "$work/answer")"
check "an unwritten answer" 74 "$(status_of post -o /dev/full "$url" x)"
mapfile -t certificates < <(service_certificates)
check "a port in use" 69 "$(status_of "$build/atls-server" "${certificates[@]}" --port "$service_port")"
status=0
stop service || status=$?
check "the service ends" 0 "$status"

# A session goes on only behind a whole answer that was encrypted. New keys behind it are no data.
connections() { # runs a command; prints its status, its output's bytes and how often the service was connected to
    : >"$work/service.log"
    echo "$(status_of "$@") $(wc -c <"$work/out") $(grep -c established "$work/service.log")"
}
run_stripping_front() { # run_stripping_front PORT: no answer that passes it is marked
    printf '%s\n' "user root; daemon off; pid $work/pid; error_log $work/front-error; events {}" "http { access_log off;" \
        "$(for kind in client_body proxy fastcgi uwsgi scgi; do echo "${kind}_temp_path $work/front-$kind;"; done)" \
        "server { listen 127.0.0.1:$1 ssl; ssl_certificate $work/service/front-cert.pem;" \
        "ssl_certificate_key $work/service/front-key.pem;" \
        "location / { proxy_pass $service_url; proxy_hide_header Content-Type; } } }" >"$work/front.conf"
    exec /usr/sbin/nginx -e "$work/front-error" -c "$work/front.conf"
}
start_service --max-fragment 512 --key-updates
start_on_free_port front run_stripping_front PORT
check "whole answers" "0 1022 1" "$(connections post -n 2 "$service_url/" "@"<(head -c 511 "$work/big"))"
check "answers in short records" "4 0 2" "$(connections post -n 2 "$service_url/" "@"<(head -c 600 "$work/big"))"
check "the cause" 2 "$(grep -c 'several short TLS records' "$work/err")"
check "unmarked answers" "0 2" "$(connections post --explain -n 2 "https://127.0.0.1:$port/" x | cut -d ' ' -f 1,3)"
check "told" 1 "$(grep -c '^  connected anew  1 time,' "$work/err")"
stop front
stop service
# Where nothing can be mounted, other tests have their folders in the same /tmp.
check "nothing but the flights is left in /tmp" "" \
    "$(find /tmp -mindepth 1 -maxdepth 1 -newer "$work/device/device-cert.der" ! -path "$work" ! -name 'atls-test-*' \
        ! -name 'tmp.*' ! -name 'atls_handshake_data_*_[0-9]*')"
check "no key can be read by others" "" "$(find "$work" -name '*key*' -perm /077)"
echo "$passed passed, 0 failed"
