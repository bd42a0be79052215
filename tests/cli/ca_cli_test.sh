#!/usr/bin/env bash
# The quillon ca commands run as a user would, on the example certificates.
# usage: ca_cli_test.sh QUILLON SOURCE_DIR
set -uo pipefail
Q=$1
EX=$2/examples/ca
T=$(mktemp -d)
trap 'rm -rf "$T"' EXIT
FAILED=0

check() {  # check NAME COMMAND...: the command must succeed
  local name=$1; shift
  if ! "$@"; then echo "FAIL: $name"; FAILED=1; fi
}
has() { grep -qF -- "$2" <<<"$1"; }
lacks() { ! grep -qF -- "$2" <<<"$1"; }

# import, add, list, show
"$Q" --dir "$T/a" ca import "$EX/quillon-example-cas.pem" >/dev/null 2>&1
check "import into a missing directory fails" test $? -ne 0
mkdir "$T/a" "$T/b"
check "import" "$Q" --dir "$T/a" ca import "$EX/quillon-example-cas.pem"
out=$("$Q" --dir "$T/a" ca list)
check "list counts the imported entries" has "$out" ": 3 entries, 3 certificates"
check "list shows the source" has "$out" "source 2 (PEM list)"
check "add" "$Q" --dir "$T/a" ca add "$EX"/from-trusted-lists/*.cer "$EX/quillon-example-ecc-root-ca.der"
out=$("$Q" --dir "$T/a" ca list)
check "list after add" has "$out" ": 6 entries, 6 certificates"
check "an added certificate" has "$out" "[3] C=BE, CN=Belgium Root CA4"
check "its serial and source" has "$out" "#0 serial 4F33208CC594BF38, source 3 (added)"
check "show" has "$("$Q" --dir "$T/a" ca show 3)" "issuer:      C=BE, CN=Belgium Root CA4"

# export, then import the export elsewhere: the same certificates
check "export" "$Q" --dir "$T/a" ca export "$T/export.pem"
check "import of the export" "$Q" --dir "$T/b" ca import "$T/export.pem"
serials() { "$Q" --dir "$1" ca list | grep -o 'serial [0-9A-F]*' ; }
check "export round-trips" test "$(serials "$T/a")" = "$(serials "$T/b")"

# failures leave the file as it was
sum=$(sha256sum <"$T/a/caCertsList-3.5")
printf -- '-----BEGIN CERTIFICATE-----\nbm90IGEgY2VydGlmaWNhdGU=\n-----END CERTIFICATE-----\n' >"$T/bad.pem"
"$Q" --dir "$T/a" ca import "$T/bad.pem" 2>/dev/null
check "a bad import fails" test $? -eq 1
"$Q" --dir "$T/a" ca add "$T/bad.pem" 2>/dev/null
check "a bad add fails" test $? -eq 1
check "failures leave the file" test "$(sha256sum <"$T/a/caCertsList-3.5")" = "$sum"
head -c 100 "$T/a/caCertsList-3.5" >"$T/b/caCertsList-3.5"
"$Q" --dir "$T/b" ca list >/dev/null 2>&1
check "a truncated list is refused" test $? -eq 1

# remove
check "remove an entry" has "$("$Q" --dir "$T/a" ca remove 0)" "5 entries left"
check "remove a source" has "$("$Q" --dir "$T/a" ca remove --source 3)" "removed 4 certificates of source 3"
check "one entry is left" has "$("$Q" --dir "$T/a" ca list)" ": 1 entries, 1 certificates"
"$Q" --dir "$T/a" ca remove 0 >/dev/null
check "an emptied list has no file" test ! -e "$T/a/caCertsList-3.5"

# a list with trusted-list certificates: country, type, status; kept by an add
mkdir "$T/tl"
cp "$2/tests/cli/trusted-list-cas/caCertsList-3.5" "$T/tl/"
check "trusted-list country and type" has "$("$Q" --dir "$T/tl" ca list)" \
  "#0 serial 4F33208CC594BF38, source 1 (trusted list), country BE, type http://uri.etsi.org/TrstSvc/Svctype/CA/QC"
out=$("$Q" --dir "$T/tl" ca show 0)
check "trusted-list status" has "$out" "status:      http://uri.etsi.org/TrstSvc/TrustedList/Svcstatus/granted"
check "qualified" has "$out" "qualified:   yes"
check "not qualified" has "$("$Q" --dir "$T/tl" ca show 1)" "qualified:   no"
"$Q" --dir "$T/tl" ca add "$EX/quillon-example-ecc-root-ca.der" >/dev/null
out=$("$Q" --dir "$T/tl" ca list)
check "metadata kept through a save" has "$out" "country IT, type http://uri.etsi.org/TrstSvc/Svctype/CA/PKC"
check "and the new one added" has "$out" ": 4 entries, 4 certificates"

# log language, identity and level
"$Q" --dir "$T/b" --lang en --log "$T/en.log" --log-level 7 ca import "$EX/quillon-example-cas.pem" >/dev/null
log=$(cat "$T/en.log")
check "log identity" has "$log" " quillon["
check "English log at level 7" has "$log" "CA certificates list initialization completed"
"$Q" --dir "$T/b" --lang de --log "$T/de.log" ca list >/dev/null
log=$(cat "$T/de.log")
check "level 6 logs the count" has "$log" ": 3"
check "German log" lacks "$log" "CA certificates included into certificate list"
"$Q" --lang xx ca list >/dev/null 2>&1
check "an unknown language is a usage error" test $? -eq 2

exit $FAILED
