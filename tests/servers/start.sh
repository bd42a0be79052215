#!/usr/bin/env bash
# tests/servers/start.sh DIR
#
# Starts the real servers the network tests talk to, all on 127.0.0.1, with
# every file they use inside DIR, and writes DIR/servers.env for the tests
# (tests/support/servers.h reads it). CTest runs it once per run as the
# FIXTURES_SETUP test `servers_start`; `servers_stop` runs stop.sh DIR.
# It can also be run by hand: bash tests/servers/start.sh /tmp/srv
#
# DIR is made fresh each time: servers a previous run recorded in DIR/run are
# stopped first (by PID), then its content is removed. A non-empty DIR that
# start.sh did not make (no DIR/.quillon-servers) is refused, not wiped.
#
# servers.env (KEY=VALUE, one a line, values verbatim, no quoting):
#   SERVERS_DIR   DIR
#   HTTP_PORT     HTTPS_PORT          the two ports nginx listens on
#   HTTP_URL      http://127.0.0.1:HTTP_PORT       (no trailing slash)
#   HTTPS_URL     https://127.0.0.1:HTTPS_PORT
#   HTTPS_CA      PEM of the self-signed HTTPS certificate (CN localhost,
#                 SAN DNS:localhost, IP:127.0.0.1, EC P-256): the trust anchor
#   NGINX_PID     PID of the nginx master
#   WWW           the document root; tests drop files there
#
# nginx, on both ports. A file the tests put at WWW/REL is served at:
#   /files/REL            as is: Content-Type by extension, Last-Modified and
#                         ETag; If-Modified-Since at or after the file's time, or
#                         a matching If-None-Match, gets 304
#   /nolm/REL             same bytes, no Last-Modified, no ETag, never 304
#   /pdf/REL              same bytes, Content-Type application/pdf
#   /chunked/REL          same bytes, Transfer-Encoding: chunked, no Content-Length
#   /slow/REL             the headers and the first ~300 bytes of the body at
#                         once (nginx counts headers against the rate: it sends
#                         512 + 64 bytes of response at once), the rest at 64 B/s
#   /stall?s=N&f=REL      nothing at all for N s (default 30), then /files/REL;
#                         without f, then "stalled\n" (needs libnginx-mod-http-echo,
#                         else 501)
#   /redirect/REL         302 -> /files/REL (absolute, built from the Host header:
#                         ask for 127.0.0.1, not localhost, which may be ::1)
#   /redirect301/REL, /redirect307/REL, /redirect308/REL   the same with that status
#   /redirect-relative/REL   302 with the relative "Location: /files/REL"
#   /redirect-abs/REL     302 -> http://127.0.0.1:HTTP_PORT/files/REL
#                         (from the HTTPS port: a downgrade)
#   /redirect-https/REL   302 -> https://127.0.0.1:HTTPS_PORT/files/REL
#   /redirect-loop        302 -> /redirect-loop
#   /status/NNN           that status, for 204 400 401 403 404 410 429 500 502 503
#   anything else         404
# Content types by extension: .crl application/pkix-crl, .der and .ocsp
# application/ocsp-response, .ocspreq application/ocsp-request, .cer and .crt
# application/pkix-cert, .p7c application/pkcs7-mime, .pem
# application/x-pem-file, .xml application/xml, .pdf, .txt, .html, .json;
# anything else application/octet-stream.
#
# Adding a server (slapd, openssl ocsp, ...): write a start_NAME function that
# starts it with retries, calls `record "$DIR" NAME PID PROGRAM` as soon as
# it has a PID (stop.sh and the failure path stop what is recorded), and adds
# its KEY=VALUE lines with env_set; then call it from main. Files it needs go in
# DIR/NAME/, certificates in DIR/pki (make_pki).
#
# Exits non-zero, with the server's log on stderr, if a server did not come up;
# whatever it had started is then stopped again.
set -euo pipefail
SERVERS_HOME=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=lib.sh
. "$SERVERS_HOME/lib.sh"

STARTUP_TIMEOUT_MS=${STARTUP_TIMEOUT_MS:-10000}
ENV_LINES=()
env_set() { ENV_LINES+=("$1=$2"); }

# pick_ports N: N free ports on 127.0.0.1 (a function so tests of this script
# can hand out a busy port on purpose).
pick_ports() { free_ports "$1"; }

# prepare_dir DIR: sets DIR (absolute) and makes it empty but for the marker.
prepare_dir() {
    DIR=$1
    [ -n "$DIR" ] || die "usage: start.sh DIR"
    case "$DIR" in
        *[\"\'\$\\\;\{\}\`]* | *$'\n'*)
            die "DIR '$DIR' has characters the server configs cannot quote" ;;
    esac
    mkdir -p -- "$DIR" || die "cannot make $DIR"
    DIR=$(cd -- "$DIR" && pwd -P)
    [ "$DIR" != / ] || die "refusing to use / as DIR"
    if [ -n "$(ls -A -- "$DIR")" ] && [ ! -f "$DIR/.quillon-servers" ]; then
        die "$DIR is not empty and was not made by start.sh; refusing to wipe it"
    fi
    stop_recorded "$DIR" || die "servers of a previous run in $DIR are still alive"
    find "$DIR" -mindepth 1 -maxdepth 1 -exec rm -rf -- {} +
    : >"$DIR/.quillon-servers"
    mkdir -p "$DIR/run" "$DIR/pki" "$DIR/www"
    env_set SERVERS_DIR "$DIR"
}

# make_pki: DIR/pki/https.pem + https.key, a self-signed EC P-256 certificate
# for CN localhost, SAN DNS:localhost and IP:127.0.0.1, valid from now for 10
# years. The config is our own so the system openssl.cnf plays no part.
# (A test CA, leaf certificates, CRLs and OCSP signer for slapd and the OCSP
# responder belong here too when those servers are added.)
make_pki() {
    PKI=$DIR/pki
    command -v openssl >/dev/null || die "openssl is not installed (scripts/setup.sh)"
    cat >"$PKI/https.cnf" <<'EOF'
[ req ]
distinguished_name = dn
prompt = no
[ dn ]
CN = localhost
[ v3_https ]
basicConstraints = critical,CA:FALSE
keyUsage = critical,digitalSignature
extendedKeyUsage = serverAuth
subjectAltName = DNS:localhost,IP:127.0.0.1
subjectKeyIdentifier = hash
EOF
    openssl req -x509 -new -config "$PKI/https.cnf" -extensions v3_https \
        -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -sha256 -days 3650 \
        -keyout "$PKI/https.key" -out "$PKI/https.pem" >"$PKI/openssl.log" 2>&1 ||
        { cat "$PKI/openssl.log" >&2; die "openssl could not make the HTTPS certificate"; }
    env_set HTTPS_CA "$PKI/https.pem"
}

# ---------------------------------------------------------------- nginx

# nginx_conf HTTP_PORT HTTPS_PORT: print the configuration.
nginx_conf() {
    local h=$1 s=$2 c=$DIR/nginx w=$DIR/www echo_mod load="" stall user=""
    echo_mod=/usr/lib/nginx/modules/ngx_http_echo_module.so
    if [ -f "$echo_mod" ]; then
        load="load_module $echo_mod;"
        # shellcheck disable=SC2016  # nginx variables
        stall='echo_sleep $stall_seconds; echo_exec $stall_target;'
    else
        stall='return 501 "/stall needs libnginx-mod-http-echo\n";'
    fi
    # As root the workers would run as "nobody", who may not be able to read DIR.
    [ "$(id -u)" = 0 ] && user="user $(id -un) $(id -gn);"
    cat <<EOF
# Written by tests/servers/start.sh; remade on every run.
$load
$user
daemon off;
worker_processes 1;
pid "$c/nginx.pid";
error_log "$c/error.log" notice;
events { worker_connections 256; }
http {
    access_log "$c/access.log";
    client_body_temp_path "$c/tmp/body";
    proxy_temp_path "$c/tmp/proxy";
    fastcgi_temp_path "$c/tmp/fastcgi";
    uwsgi_temp_path "$c/tmp/uwsgi";
    scgi_temp_path "$c/tmp/scgi";
    server_tokens off;
    keepalive_timeout 5s;
    types {
        application/pkix-crl crl;
        application/ocsp-response der ocsp;
        application/ocsp-request ocspreq;
        application/pkix-cert cer crt;
        application/pkcs7-mime p7c;
        application/x-pem-file pem;
        application/xml xml;
        application/json json;
        application/pdf pdf;
        text/plain txt;
        text/html html;
    }
    default_type application/octet-stream;
    # 304 for any If-Modified-Since at or after the file's time, not only an
    # exact match.
    if_modified_since before;
    map \$arg_s \$stall_seconds { default 30; "~^[0-9]+(\\.[0-9]+)?\$" \$arg_s; }
    map \$arg_f \$stall_target { "" /_stalled; "~(^/|\\.\\.)" /status/400; default /files/\$arg_f; }
    server {
        listen 127.0.0.1:$h;
        listen 127.0.0.1:$s ssl;
        server_name localhost;
        ssl_certificate "$DIR/pki/https.pem";
        ssl_certificate_key "$DIR/pki/https.key";
        root "$w";

        location / { return 404; }
        location = /_ready { default_type text/plain; return 200 "ready\n"; }

        location /files/ { alias "$w/"; }
        location /nolm/ {
            alias "$w/";
            add_header Last-Modified "";
            etag off;
            if_modified_since off;
        }
        location /pdf/ { alias "$w/"; types { } default_type application/pdf; }
        location /chunked/ {
            alias "$w/";
            # A pattern that never occurs: the body is unchanged, but its
            # length is no longer known up front, so it goes out chunked.
            sub_filter_types *;
            sub_filter "@@quillon-never-there@@" "";
        }
        # limit_rate counts the header bytes too: without limit_rate_after the
        # headers alone would take about 4 s.
        location /slow/ { alias "$w/"; limit_rate_after 512; limit_rate 64; }
        location = /stall { $stall }
        location = /_stalled { internal; default_type text/plain; return 200 "stalled\n"; }

        location ~ ^/redirect/(.*)\$ { return 302 /files/\$1\$is_args\$args; }
        location ~ ^/redirect301/(.*)\$ { return 301 /files/\$1\$is_args\$args; }
        location ~ ^/redirect307/(.*)\$ { return 307 /files/\$1\$is_args\$args; }
        location ~ ^/redirect308/(.*)\$ { return 308 /files/\$1\$is_args\$args; }
        location ~ ^/redirect-relative/(.*)\$ {
            absolute_redirect off;
            return 302 /files/\$1\$is_args\$args;
        }
        location ~ ^/redirect-abs/(.*)\$ { return 302 http://127.0.0.1:$h/files/\$1\$is_args\$args; }
        location ~ ^/redirect-https/(.*)\$ { return 302 https://127.0.0.1:$s/files/\$1\$is_args\$args; }
        location = /redirect-loop { return 302 /redirect-loop; }

        location = /status/204 { return 204; }
        location = /status/400 { return 400; }
        location = /status/401 { return 401; }
        location = /status/403 { return 403; }
        location = /status/404 { return 404; }
        location = /status/410 { return 410; }
        location = /status/429 { return 429; }
        location = /status/500 { return 500; }
        location = /status/502 { return 502; }
        location = /status/503 { return 503; }
    }
}
EOF
}

# http_ok URL [curl options]: a GET of URL answers 200.
http_ok() {
    local url=$1 code
    shift
    code=$(curl -q -s -o /dev/null -w '%{http_code}' --noproxy '*' --max-time 2 "$@" "$url") || true
    [ "$code" = 200 ]
}

# nginx_ready PID HTTP_PORT HTTPS_PORT: both ports are PID's and answer 200,
# the HTTPS one with a certificate that verifies against our CA.
nginx_ready() {
    owns_port "$1" "$2" && owns_port "$1" "$3" &&
        http_ok "http://127.0.0.1:$2/_ready" &&
        http_ok "https://127.0.0.1:$3/_ready" --cacert "$DIR/pki/https.pem"
}
nginx_up_or_dead() { ! pid_alive "$1" || nginx_ready "$@"; }

start_nginx() {
    local c=$DIR/nginx nginx_bin attempt ports hport sport pid t0 lines
    nginx_bin=$(command -v nginx || echo /usr/sbin/nginx)
    [ -x "$nginx_bin" ] || die "nginx is not installed (scripts/setup.sh installs it)"
    command -v curl >/dev/null || die "curl is not installed (scripts/setup.sh installs it)"
    [ -f /usr/lib/nginx/modules/ngx_http_echo_module.so ] ||
        note "libnginx-mod-http-echo is missing: /stall will answer 501"
    mkdir -p "$c/tmp" "$DIR/www"
    : >"$c/error.log"
    : >"$c/out.log"
    for attempt in 1 2 3 4 5; do
        mapfile -t ports < <(pick_ports 2)
        hport=${ports[0]:-}
        sport=${ports[1]:-}
        if [ -z "$hport" ] || [ -z "$sport" ]; then
            die "could not pick free ports (is python3 installed?)"
        fi
        nginx_conf "$hport" "$sport" >"$c/nginx.conf"
        lines=$(wc -l <"$c/error.log")
        t0=$(now_ms)
        # Detached from our stdio: a caller reading our output through a pipe
        # (CTest does) would otherwise wait until nginx exits.
        "$nginx_bin" -p "$c/" -c "$c/nginx.conf" -e "$c/error.log" \
            </dev/null >>"$c/out.log" 2>&1 &
        pid=$!
        record "$DIR" nginx "$pid" "$nginx_bin"
        wait_until "$STARTUP_TIMEOUT_MS" nginx_up_or_dead "$pid" "$hport" "$sport" || true
        if pid_alive "$pid"; then
            if nginx_ready "$pid" "$hport" "$sport"; then
                note "nginx $pid on 127.0.0.1:$hport (http) and :$sport (https), up in $(( $(now_ms) - t0 )) ms"
                env_set HTTP_PORT "$hport"
                env_set HTTPS_PORT "$sport"
                env_set HTTP_URL "http://127.0.0.1:$hport"
                env_set HTTPS_URL "https://127.0.0.1:$sport"
                env_set NGINX_PID "$pid"
                env_set WWW "$DIR/www"
                return 0
            fi
            stop_recorded "$DIR" || true
            show_log "$c/out.log" "$c/error.log"
            die "nginx ($pid) runs but did not answer on 127.0.0.1:$hport/$sport within $STARTUP_TIMEOUT_MS ms"
        fi
        # Died at start: another process took a port between our pick and its
        # bind. Anything else is a real error and would only fail again.
        if tail -n +"$((lines + 1))" "$c/error.log" | grep -q 'Address already in use'; then
            note "nginx lost a port race on $hport/$sport (attempt $attempt); new ports"
            continue
        fi
        show_log "$c/out.log" "$c/error.log"
        die "nginx exited at start"
    done
    show_log "$c/out.log" "$c/error.log"
    die "nginx lost the port race 5 times"
}

show_log() {
    local f
    for f in "$@"; do
        [ -s "$f" ] || continue
        echo "---- $f (last 30 lines)" >&2
        tail -n 30 "$f" >&2
    done
}

# ---------------------------------------------------------------- main

write_env() {
    local tmp=$DIR/servers.env.tmp
    {
        echo "# Written by tests/servers/start.sh: the servers of this test run."
        printf '%s\n' "${ENV_LINES[@]}"
    } >"$tmp"
    mv -f -- "$tmp" "$DIR/servers.env"
}

on_exit() {
    local rc=$?
    if [ $rc -ne 0 ] && [ -n "${DIR:-}" ] && [ -d "$DIR/run" ]; then
        stop_recorded "$DIR" || true
    fi
    exit $rc
}

main() {
    [ $# -eq 1 ] || die "usage: start.sh DIR"
    prepare_dir "$1"
    trap on_exit EXIT
    make_pki
    start_nginx
    # Later: start_slapd, start_ocsp, ... (each adds its own env lines).
    write_env
    trap - EXIT
    echo "servers: ready, environment in $DIR/servers.env"
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
    main "$@"
fi
