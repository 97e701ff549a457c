#!/usr/bin/env bash
# Regenerates the seed corpus of fast_coding_fuzz: a few small valid streams of every shape
# the readers know, made with `corvane fast encode` and, for what JSON cannot say (cycles,
# coded objects, version 2 streams), written out byte by byte.
set -euo pipefail
corvane=${1:-build/debug/bin/corvane}
out=$(cd "$(dirname "$0")" && pwd)/corpus/fast_coding_fuzz
mkdir -p "$out"
enc() { printf '%s' "$2" | "$corvane" fast encode -o "$out/$1" ${3:-}; }
enc cache_item.fast '{"7C1A0B2E-0000-4000-8000-000000000001":{"attributes":{"name":"Ann","age":42,"score":2.5,"ok":true,"born":{"$date":-1000.5},"price":{"$decimal":"12.30"}},"relations":{"friends":["Person/AAA","Person/BBB"]}}}'
enc kinds.fast '[null,{"$nil":true},false,-1,300,70000,1099511627776,{"$data":"AQID"},{"$set":[1]},{"$orderedSet":["a","a2"]},{"$url":"b","$base":{"$url":"http://h/","$base":null}},{"$point":[1,2]},{"$size":[3,4]},{"$rect":[1,2,3,4]},{"$range":[5,6]},{"$vector":[7,8]},{"$transform3D":[1,0,0,0,0,1,0,0,0,0,1,0,0,0,0,1]},{"$indexSet":[[1,2],[9,1]]},{"$dictionary":[[1,"one"]]}]'
enc mutable.fast '{"list":[1,2,{"deep":[{"x":"y"}]}],"set":{"$set":["p","q"]}}' --mutable
enc objects.fast '[{"$class":"Thing","a":1,"b":"s"},{"$class":"Thing","a":2,"b":"s","c":null},{"$class":"Other"}]'
hdr() { printf 'TSAF\x03\x00\x03\x00'; printf "$1"; }
# A mutable array holding itself, and a dictionary holding itself.
{ hdr '\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00'; printf '\x19\x00\x00\x00\x01\x00\x00\x00\x02\x00'; } > "$out/cycle.fast"
{ hdr '\x01\x00\x00\x00\x00\x00\x00\x00\x01\x00\x00\x00'; printf '\x18\x00\x00\x00\x01\x00\x00\x00\x02\x00\x08self\x00'; } > "$out/self_dict.fast"
# A coded object of an unknown class with one pair, and a keyed archive.
{ hdr '\x01\x00\x00\x00\x00\x00\x00\x00\x03\x00\x00\x00'; printf '\x2b\x08Elsewhere\x00\x2d\x08k\x00\x00'; } > "$out/coded.fast"
{ hdr '\x02\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00'; printf '\x2f\x15\x00\x00\x03\x00\x00\x00\x01\x02\x03\x00'; } > "$out/archive.fast"
# Version 2.3: the string "abc", and [5, alias 0] inside a class-defined object.
printf 'TSAF\x02\x00\x03\x00\x01\x00\x00\x00\x02\x00\x00\x00abc\x00' > "$out/legacy_string.fast"
printf 'TSAF\x02\x00\x03\x00\x03\x00\x00\x00\x15\x00\x00\x00Thing\x00\x00\x00\x01\x00\x00\x00p\x00\x00\x00\x16\x00\x00\x00\x00\x00\x00\x00\x04\x00\x00\x00\x02\x00\x00\x00\x09\x00\x00\x00\x05\x00\x00\x00\x01\x00\x00\x00\x02\x00\x00\x00' > "$out/legacy_object.fast"
ls -l "$out"
