#!/bin/bash
# A program outside the tree: installs the project into a folder of its own, builds the example
# against what is there, by pkg-config and by CMake's package file, and lists the media sources of
# the installed service with both.
#
# outside_test.sh BUILD SOURCE
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
mkdir "$scratch/outside" "$scratch/music"
cp "$source/examples/list_sources.c" "$scratch/outside"
cd "$scratch/outside"

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name lyrane-client.pc)")
export PKG_CONFIG_PATH
read -ra flags <<<"$(pkg-config --cflags --libs lyrane-client)"
cc -std=c11 -Wall -Wextra -pedantic-errors -Werror list_sources.c "${flags[@]}" -o by_pkg_config

cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.18)
project(outside C)
find_package(lyrane-client 0.1 REQUIRED)
add_executable(by_cmake list_sources.c)
target_link_libraries(by_cmake PRIVATE lyrane::client)
add_executable(by_cmake_static list_sources.c)
target_link_libraries(by_cmake_static PRIVATE lyrane::client-static)
END
cmake -S . -B . -DCMAKE_PREFIX_PATH="$prefix" >configure.log
cmake --build . >build.log

plugin=$(find "$prefix" -name files.so)
cat >lyrane.cfg <<END
{
  "player": { "audio_output": "fakesink", "video_output": "fakesink", "update_interval": "250",
              "progression_mode": "ROSP", "recursion_depth": "-1" },
  "plugins": { "$plugin": { "folders": "$scratch/music" } }
}
END
export VELORAN_RUN=$scratch/run VELORAN_STATE=$scratch/state VELORAN_SLOG=file:$scratch/slog
"$prefix/sbin/lyrane" -b -c lyrane.cfg &
service=$!
for program in by_pkg_config by_cmake by_cmake_static; do
    until LD_LIBRARY_PATH=$(dirname "$(find "$prefix" -name liblyrane-client.so)") \
        "./$program" >"$program.out" 2>"$program.err"; do
        kill -0 "$service" # it has not come up yet, or it has ended
        grep -q 'No such file\|refused' "$program.err"
    done
    printf '1 media sources\n0 music\n1 media sources\n0 music\n' | diff - "$program.out"
done
kill "$service"
wait "$service"
service=
