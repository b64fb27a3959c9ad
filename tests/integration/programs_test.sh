#!/usr/bin/env bash
# The built library and programs, used from outside. usage: programs_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
# shellcheck source=tests/support/checks.sh
. "$(dirname "$0")/../support/checks.sh"
device=$build/examples/device # compiled into the example of a platform layer
trap 'stop_all; rm -rf "$work" "$device"' EXIT

post() {
    # shellcheck disable=SC2086
    ${LAUNCHER:-} "$build/atls-post" "$@"
}

# Exactly the documented symbols, each of them defined.
listed() { sed -n '/global:/,/local:/s/^ *\([A-Za-z0-9_]*\);$/\1/p' "$1" | sort; }
exported() { nm -D --defined-only "$1" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | sort; }
check "symbols of libatls.so" "$(listed "$source/libatls.map")" "$(exported "$build/libatls.so")"
check "symbols of the platform" "$(listed "$source/platform/platform.map")" \
    "$(exported "$build/libatls-platform.so" | grep -v atls_platform_time64)"
check "soname, and stays loaded for its thread" "[libatls.so.1] NODELETE" \
    "$(readelf -d "$build/libatls.so" | grep -o -e '[[]libatls.so.1[]]' -e NODELETE | xargs)"

# shellcheck disable=SC2016 # Markdown
check "the README shows the example" "" "$(sed -n '/^```c$/,/^```$/{/^```/d;p}' "$source/README.md" | diff - "$source/examples/post.c")"

# A device's own platform layer is used when it stands in the library path, its stime included. The right to set the
# clock is given up first, in case it is not.
check "replaced platform" "stime of the platform called: 1" "$(LD_LIBRARY_PATH=$build/tests/double \
    setpriv --bounding-set=-sys_time --inh-caps=-sys_time "$build/tests/platform-caller" 2>&1)"

"$source/scripts/make-identity" "$work"
export ATLS_PLATFORM_DIR=$work/device
start_service
url=$service_url/atls

head -c 300000 /dev/urandom >"$work/big"
check_rows <<'TABLE'
a message|0 hello |echo "$(status_of post "$url" hello) $(cat "$work/out" "$work/err") "
three answers||post -n 3 -o "$work/answer" "$url" "@$work/big"; cat "$work/big" "$work/big" "$work/big" | cmp - "$work/answer"
from the standard input|piped|echo -n piped | post "$url"
the header block|TrackingID: t-1|post -i --ip 127.0.0.1 --tracking-id t-1 "https://elsewhere.invalid:${service_url##*:}/" x | tr -d '\r' | grep Tr
the example|hallo|"$build/example-post" 127.0.0.1 "${service_url##*:}" /atls hallo 2>"$work/err"
the front end saw no message||grep -lr -e hello -e hallo -e piped "$work/seen"
the log|1|status_of post --log notice "$url" x >"$work/status"; grep -c '^atls-post: atls_connect: ATLS connection to 127.0.0.1 established' "$work/err"
the trace|1|post --trace "$url" x 2>&1 | grep -m 1 -c '< HTTP/1.1 200 OK'
TABLE

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

# shellcheck disable=SC2119
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
for missing in service bus; do
    if [ $missing = service ]; then stop proxy-manager; else stop bus; fi
    check "no $missing" "0 x  proxies offered none: the proxy manager cannot be reached" \
        "$(status_of post --explain "$url" x) $(cat "$work/out"; grep offered "$work/err")"
done
check "explained failure" "3   carried by      nothing" "$(status_of post --explain https://127.0.0.1:1/ x) $(grep carried "$work/err")"

# Wrong usage: status 64 and one line; the library's own results otherwise.
refused() { echo "$(status_of post "$@") $(wc -l <"$work/err")"; }
check_rows <<'TABLE'
not HTTPS|64 1|refused http://127.0.0.1/ x
no port|64 1|refused https://host:80x/ x
no file|64 1|refused "$url" @/no/such/file
a header of its own|64 1|refused --tracking-id $'a\r\nb' "$url" x
no folder|64 1|refused -o /no/such/file "$url" x
not possible|1 1|refused https://127.0.0.1:65536/ x
not there|3 1|refused https://127.0.0.1:1/ x
a failed post keeps the file|2 kept|echo kept >"$work/kept"; ATLS_PLATFORM_DIR=/none status_of post -o "$work/kept" "$url" x | tr '\n' ' '; cat "$work/kept"
an unwritten answer|74|status_of post -o /dev/full "$url" x
a port in use|69 1|echo "$(status_of "$build/atls-server" $(service_certificates) --port "${service_url##*:}") $(grep -c 'Address already in use' "$work/err")"
another key|69 1|echo "$(status_of "$build/atls-server" $(service_certificates | sed s/service-key/front-key/)) $(grep -c 'front-key.pem: key values mismatch' "$work/err")"
TABLE
stop service || check "the service ends" 0 $?

# A session goes on only behind a whole answer that was encrypted. New keys behind it are no data.
connections() { # runs a command; prints its status, its output's bytes and how often the service was connected to
    : >"$work/service.log"
    echo "$(status_of "$@") $(wc -c <"$work/out") $(grep -c established "$work/service.log")"
}
start_service --max-fragment 512 --key-updates
check "whole answers" "0 1022 1" "$(connections post -n 2 "$service_url/" "@"<(head -c 511 "$work/big"))"
check "answers in short records" "4 0 2 2" \
    "$(connections post -n 2 "$service_url/" "@"<(head -c 600 "$work/big")) $(grep -c 'several short TLS records' "$work/err")"
stop service || true

# The examples of front ends, before two services. One also offers HTTP/2, and takes the mark from the answers of a folder.
front_end() { # front_end PROGRAM PORT
    sed "s|/etc/atls|$work/service|; s/8443/$2/; s/:8001/:$other/; s/:8002/:${service_url##*:}/" "$source/examples/front-ends/$1".* >"$work/front"
    case $1 in
        nginx)
            sed -i 's/ ssl;/ ssl http2;/; s|^ *loc|location /unmarked { proxy_hide_header Content-Type; proxy_pass http://atls; }\n&|' "$work/front"
            echo "user root; daemon off; pid $work/pid; error_log $work/log; events {} http { access_log off; include $work/front;" \
                "$(printf '%s_temp_path . ; ' client_body proxy fastcgi uwsgi scgi) }" >"$work/main"
            exec /usr/sbin/nginx -p "$work" -c "$work/main" ;;
        haproxy) exec /usr/sbin/haproxy -f "$work/front" ;;
        apache2)
            printf '%s\n' "ServerName localhost" "PidFile $work/pid" "ErrorLog $work/log" "DefaultRuntimeDir $work" >"$work/main"
            printf 'LoadModule %s_module /usr/lib/apache2/modules/mod_%s.so\n' {mpm_event,authz_core,ssl,proxy,proxy_http}{,} \
                {proxy_balancer,lbmethod_byrequests,slotmem_shm,headers}{,} | cat - "$work/front" >>"$work/main"
            exec /usr/sbin/apache2 -X -f "$work/main" ;;
    esac
}
start_service --plain
pid_of[other]=${pid_of[service]} other=${service_url##*:}
start_service --plain
cat "$work"/service/front-{cert,key}.pem >"$work/service/front.pem"
for server in nginx haproxy apache2; do
    [ -x "/usr/sbin/$server" ] || { echo "$server is not installed: not tried"; continue; }
    start_on_free_port front front_end "$server" PORT
    check "over $server" "0 10 1" "$(connections post -n 2 "https://127.0.0.1:$port/atls" hello)"
    [ $server != nginx ] || check "unmarked answers, told" "0 2 1" "$(connections post --explain -n 2 "https://127.0.0.1:$port/unmarked" x |
        cut -d ' ' -f 1,3) $(grep -c '^  connected anew  1 time,' "$work/err")"
    stop front || true
done
stop_all
# Where nothing can be mounted, other tests have their folders in the same /tmp.
check "nothing but the flights is left in /tmp" "" \
    "$(find /tmp -mindepth 1 -maxdepth 1 -newer "$work/device/device-cert.der" ! -path "$work" ! -name 'atls-test-*' \
        ! -name 'tmp.*' ! -name 'atls_handshake_data_*_[0-9]*')"
check "no key can be read by others" "" "$(find "$work" -name '*key*' -perm /077)"
