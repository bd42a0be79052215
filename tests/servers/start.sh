#!/usr/bin/env bash
# tests/servers/start.sh DIR
#
# Starts the real servers the network tests talk to, all on 127.0.0.1, with
# every file they use inside DIR, and writes DIR/servers.env for the tests
# (tests/support/servers.h reads it). CTest runs it once per run as the
# FIXTURES_SETUP test `servers_start`; `servers_stop` runs stop.sh DIR.
# By hand: bash tests/servers/start.sh /tmp/srv
#
# DIR is made fresh each time (servers a previous run recorded there are
# stopped first); a non-empty DIR that start.sh did not make is refused.
#
# servers.env (KEY=VALUE, values verbatim): SERVERS_DIR; WWW, the document root
# tests drop files in; HTTP_PORT, HTTPS_PORT, HTTP_URL (http://127.0.0.1:PORT)
# and HTTPS_URL of nginx; HTTPS_CA, the PEM of its self-signed certificate
# (DNS:localhost, IP:127.0.0.1), the trust anchor for the HTTPS port.
#
# nginx, on both ports. A file the tests put at WWW/REL is served at:
#   /files/REL      as is: Content-Type by extension, Last-Modified and ETag;
#                   If-Modified-Since at or after the file's time gets 304
#   /slow/REL       the headers and the first ~300 body bytes at once (nginx
#                   counts the headers against the rate), the rest at 64 B/s
#   /redirect/REL   302 -> /files/REL (absolute, built from the Host header)
#   anything else   404
#
# Adding a server (slapd, openssl ocsp, ...): write a start_NAME function that
# starts it with retries, calls `record "$DIR" NAME PID PROGRAM` as soon as
# it has a PID (stop.sh and the failure path stop what is recorded), and adds
# its KEY=VALUE lines with env_set; then call it from main. Files it needs go
# in DIR/NAME/, certificates in DIR/pki (make_pki).
#
# Exits non-zero, with the server's log on stderr, if a server did not come
# up; whatever it had started is then stopped again.
set -euo pipefail
# shellcheck source=lib.sh
. "$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/lib.sh"

STARTUP_TIMEOUT_MS=${STARTUP_TIMEOUT_MS:-10000}
ENV_LINES=()
env_set() { ENV_LINES+=("$1=$2"); }

# prepare_dir DIR: sets DIR (absolute) and makes it empty but for the marker.
prepare_dir() {
    DIR=$1
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
    env_set WWW "$DIR/www"
}

# make_pki: DIR/pki/https.pem + https.key, a self-signed EC P-256 certificate
# for localhost and 127.0.0.1, valid for 10 years. The config is our own so
# that the system openssl.cnf plays no part. (The test CA, certificates, CRLs
# and OCSP signer of slapd and the OCSP responder belong here too.)
make_pki() {
    local pki=$DIR/pki
    command -v openssl >/dev/null || die "openssl is not installed (scripts/setup.sh)"
    cat >"$pki/https.cnf" <<'EOF'
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
EOF
    openssl req -x509 -new -config "$pki/https.cnf" -extensions v3_https \
        -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -sha256 -days 3650 \
        -keyout "$pki/https.key" -out "$pki/https.pem" >"$pki/openssl.log" 2>&1 ||
        { cat "$pki/openssl.log" >&2; die "openssl could not make the HTTPS certificate"; }
    env_set HTTPS_CA "$pki/https.pem"
}

# ---------------------------------------------------------------- nginx

# nginx_conf HTTP_PORT HTTPS_PORT: print the configuration.
nginx_conf() {
    local c=$DIR/nginx w=$DIR/www user=""
    # As root the workers would run as "nobody", who may not be able to read DIR.
    [ "$(id -u)" = 0 ] && user="user $(id -un) $(id -gn);"
    cat <<EOF
# Written by tests/servers/start.sh; remade on every run.
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
        application/pkix-cert cer crt;
        application/xml xml;
    }
    default_type application/octet-stream;
    # 304 for any If-Modified-Since at or after the file's time, not only an exact match.
    if_modified_since before;
    server {
        listen 127.0.0.1:$1;
        listen 127.0.0.1:$2 ssl;
        server_name localhost;
        ssl_certificate "$DIR/pki/https.pem";
        ssl_certificate_key "$DIR/pki/https.key";

        location / { return 404; }
        location = /_ready { default_type text/plain; return 200 "ready\n"; }
        location /files/ { alias "$w/"; }
        # limit_rate counts the header bytes too: without limit_rate_after the
        # headers alone would take seconds.
        location /slow/ { alias "$w/"; limit_rate_after 512; limit_rate 64; }
        location ~ ^/redirect/(.*)\$ { return 302 /files/\$1\$is_args\$args; }
    }
}
EOF
}

# nginx_ready PID HTTP_PORT HTTPS_PORT: both ports are PID's and answer 200,
# the HTTPS one with a certificate that verifies against our own.
nginx_ready() {
    owns_port "$1" "$2" && owns_port "$1" "$3" &&
        http_ok "http://127.0.0.1:$2/_ready" &&
        http_ok "https://127.0.0.1:$3/_ready" --cacert "$DIR/pki/https.pem"
}
nginx_up_or_dead() { ! pid_alive "$1" || nginx_ready "$@"; }

start_nginx() {
    local c=$DIR/nginx nginx_bin attempt ports pid
    nginx_bin=$(command -v nginx || echo /usr/sbin/nginx)
    [ -x "$nginx_bin" ] || die "nginx is not installed (scripts/setup.sh installs it)"
    command -v curl >/dev/null || die "curl is not installed (scripts/setup.sh installs it)"
    mkdir -p "$c/tmp"
    # Another process may take a port between our pick and nginx's bind: then
    # nginx exits at once, and a new pick is tried.
    for attempt in 1 2 3 4 5; do
        mapfile -t ports < <(free_ports 2)
        [ "${#ports[@]}" = 2 ] || die "could not pick free ports (is python3 installed?)"
        nginx_conf "${ports[@]}" >"$c/nginx.conf"
        # Detached from our stdio: CTest reads our output through a pipe and
        # would otherwise wait until nginx exits.
        "$nginx_bin" -p "$c/" -c "$c/nginx.conf" -e "$c/error.log" </dev/null >>"$c/out.log" 2>&1 &
        pid=$!
        record "$DIR" nginx "$pid" "$nginx_bin"
        wait_until "$STARTUP_TIMEOUT_MS" nginx_up_or_dead "$pid" "${ports[@]}" || true
        if pid_alive "$pid" && nginx_ready "$pid" "${ports[@]}"; then
            note "nginx $pid on 127.0.0.1:${ports[0]} (http) and :${ports[1]} (https)"
            env_set HTTP_PORT "${ports[0]}"
            env_set HTTPS_PORT "${ports[1]}"
            env_set HTTP_URL "http://127.0.0.1:${ports[0]}"
            env_set HTTPS_URL "https://127.0.0.1:${ports[1]}"
            return 0
        fi
        pid_alive "$pid" && break  # runs but does not answer: a new port will not help
        note "nginx exited at start (attempt $attempt)"
    done
    show_log "$c/out.log" "$c/error.log"
    die "nginx did not come up on 127.0.0.1 (its log is above)"
}

# ---------------------------------------------------------------- main

main() {
    [ $# -eq 1 ] && [ -n "$1" ] || die "usage: start.sh DIR"
    prepare_dir "$1"
    # On failure, stop whatever was started.
    trap 'rc=$?; [ $rc = 0 ] || stop_recorded "$DIR" || true; exit $rc' EXIT
    make_pki
    start_nginx
    # Later: start_slapd, start_ocsp, ... (each adds its own env lines).
    { echo "# Written by tests/servers/start.sh: the servers of this test run."
      printf '%s\n' "${ENV_LINES[@]}"; } >"$DIR/servers.env.tmp"
    mv -f -- "$DIR/servers.env.tmp" "$DIR/servers.env"
    trap - EXIT
    echo "servers: ready, environment in $DIR/servers.env"
}

main "$@"
