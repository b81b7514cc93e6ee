#!/bin/bash
# A plug-in outside the tree: builds the example against the installed headers alone, checks it with
# the installed plugincheck, and plays it with the installed service from one station to the next.
#
# plugin_test.sh BUILD SOURCE
set -euo pipefail

build=$1 source=$2
scratch=$(mktemp -d)
service=
finish() {
    if [ -n "$service" ]; then
        kill "$service" 2>/dev/null && wait "$service" || :
    fi
    rm -rf "$scratch"
}
trap finish EXIT

prefix=$scratch/usr
cmake --install "$build" --prefix "$prefix" >"$scratch/install.log"
mkdir "$scratch/outside"
cp "$source/examples/radio.c" "$scratch/outside"
cd "$scratch/outside"
export LD_LIBRARY_PATH PATH=$prefix/bin:$PATH
LD_LIBRARY_PATH=$(dirname "$(find "$prefix" -name liblyrane-client.so)")

cc -std=c11 -Wall -Wextra -pedantic-errors -Werror -fPIC -shared -fvisibility=hidden -pthread \
    -I "$prefix/include" radio.c -o radio.so
plugincheck --set length=500 --wait 60000 radio.so >check.txt || { cat check.txt; exit 1; }

cat >lyrane.cfg <<END
{
  "player": { "audio_output": "null", "video_output": "null", "update_interval": "100",
              "progression_mode": "ROSP", "recursion_depth": "-1" },
  "plugins": { "$PWD/radio.so": { "stations": "First,Second", "length": "1000" } }
}
END
export VELORAN_RUN=$scratch/run VELORAN_STATE=$scratch/state VELORAN_SLOG=file:$scratch/slog
"$prefix/sbin/lyrane" -b -c lyrane.cfg &
service=$!
until lyractl sources >sources.txt 2>&1; do
    kill -0 "$service" # it has not come up yet, or it has ended
done
grep -q Radio sources.txt
lyractl session --create -p test --play
for station in First Second; do # the second one because the first has ended
    until lyractl now -p test >now.txt && grep -q "$station" now.txt; do
        kill -0 "$service"
    done
done
kill "$service"
wait "$service"
service=
