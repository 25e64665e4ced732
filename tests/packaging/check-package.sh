#!/usr/bin/env bash
# Builds the Debian package from a finished build tree and checks it as a user's system would take it:
# control data and file list, lintian, the desktop entry and AppStream metadata, manuals and completion,
# then runs the programs from the unpacked tree. Usage: check-package.sh BUILD_DIR
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
build="$(cd "$1" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
failures=0
check() {  # check DESCRIPTION COMMAND...: runs the command, counts a failure
    if "${@:2}" >"$work/out" 2>&1; then
        echo "ok: $1"
    else
        echo "FAILED: $1"
        sed 's/^/    /' "$work/out" | head -40
        failures=$((failures + 1))
    fi
}

deb="$(MOSSLY_BUILD_DIR="$build" "$root/scripts/package" --no-build)"
echo "package: $deb"
version="$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")"
field() { dpkg-deb --field "$deb" "$1"; }

check "name, version and architecture" test "$(field Package) $(field Version) $(field Architecture)" \
    = "mossly $version $(dpkg --print-architecture)"
# Libraries found by dpkg-shlibdeps, plus what the app runs without linking to it.
for dependency in libqt6widgets6 libqt6webenginewidgets6 libsqlite3-0 libqt6webenginecore6-bin fonts-dejavu-core \
    libcurl4 libsecret-1-0; do
    check "depends on $dependency" grep -qE "(^|, )$dependency( |,|$)" <<<"$(field Depends)"
done

# The package holds exactly what `cmake --install` installs, under /usr.
DESTDIR="$work/staged" cmake --install "$build" --prefix /usr >/dev/null
(cd "$work/staged" && find . -type f | sed 's|^\./||' | sort) >"$work/installed.txt"
dpkg-deb --fsys-tarfile "$deb" | tar -t | grep -v '/$' | sed 's|^\./||' | sort >"$work/packaged.txt"
check "the package holds what cmake --install installs" diff "$work/installed.txt" "$work/packaged.txt"
check "nothing outside /usr, no headers or static libraries" \
    bash -c '! grep -vE "^usr/" "$1" && ! grep -E "^usr/(include|lib/.*\.a$)" "$1"' _ "$work/packaged.txt"
expected=(
    usr/bin/mossly usr/bin/mossly-agent usr/bin/mossly-record usr/bin/mossly-link-preview usr/bin/mossly-html-page
    usr/share/mossly/sketch/sketch.js usr/share/mossly/sketch/index.html usr/share/mossly/sketch/sketch.js.LEGAL.txt
    usr/share/applications/mossly.desktop usr/share/metainfo/com.bellam.notes.metainfo.xml
    usr/share/icons/hicolor/scalable/apps/mossly.svg
    usr/share/man/man1/mossly.1.gz usr/share/man/man1/mossly-agent.1.gz usr/share/man/man1/mossly-record.1.gz
    usr/share/bash-completion/completions/mossly-agent usr/share/zsh/vendor-completions/_mossly-agent
    usr/share/doc/mossly/copyright usr/share/doc/mossly/changelog.gz
)
for size in 16 22 24 32 48 64 128 256 512; do expected+=("usr/share/icons/hicolor/${size}x${size}/apps/mossly.png"); done
for path in "${expected[@]}"; do check "contains $path" grep -qx "$path" "$work/packaged.txt"; done

check "lintian finds no error or warning" lintian --fail-on error,warning "$deb"

dpkg-deb -x "$deb" "$work/root"
usr="$work/root/usr"
check "desktop entry is valid" desktop-file-validate "$usr/share/applications/mossly.desktop"
check "desktop entry opens mossly:// links" grep -qE '^MimeType=.*x-scheme-handler/mossly;' \
    "$usr/share/applications/mossly.desktop"
check "AppStream metadata is valid" appstreamcli validate --no-net "$usr/share/metainfo/com.bellam.notes.metainfo.xml"
for size in 16 48 512; do
    check "the ${size}px icon is ${size}px" bash -c \
        'python3 -c "import struct,sys; d=open(sys.argv[1],\"rb\").read(24); sys.exit(struct.unpack(\">II\", d[16:24]) != (int(sys.argv[2]),)*2)" "$@"' \
        _ "$usr/share/icons/hicolor/${size}x${size}/apps/mossly.png" "$size"
done
for page in "$usr"/share/man/man1/*.1.gz; do
    check "manual $(basename "$page") is a gzipped man page" bash -c 'zcat "$1" | grep -q "^\.TH"' _ "$page"
done
# Every subcommand of the command table starts a line of the manual's command list.
manual_lists_every_command() {
    local commands text
    commands="$("$usr/bin/mossly-agent" completion bash | sed -n 's/.*compgen -W "\(.*\) help --help".*/\1/p')"
    [[ -n "$commands" ]] || return 1
    text="$(zcat "$usr/share/man/man1/mossly-agent.1.gz" | sed 's/\\-/-/g')"
    for command in $commands; do
        grep -qE "^$command( |$)" <<<"$text" || { echo "not in the manual: $command"; return 1; }
    done
}
check "the mossly-agent manual lists every command" manual_lists_every_command
check "bash completion loads" bash --norc -c 'source "$1" && complete -p mossly-agent' _ \
    "$usr/share/bash-completion/completions/mossly-agent"
check "zsh completion parses" zsh -n "$usr/share/zsh/vendor-completions/_mossly-agent"

# The programs run from where the package puts them, and find their files there.
check "installed mossly-agent --help" bash -c '"$1" --help | grep -q "^Usage: mossly-agent"' _ "$usr/bin/mossly-agent"
check "installed mossly-agent import-granola --help" "$usr/bin/mossly-agent" import-granola --help
check "installed mossly-record --help" bash -c '"$1" --help | grep -q "Usage: mossly-record"' _ "$usr/bin/mossly-record"
check "installed mossly-link-preview --help" "$usr/bin/mossly-link-preview" --help
check "installed mossly-html-page --help" "$usr/bin/mossly-html-page" --help
check "installed mossly --help" env QT_QPA_PLATFORM=offscreen "$usr/bin/mossly" --help
check "the sketch canvas lies beside the installed app" test -s "$usr/bin/../share/mossly/sketch/sketch.js"
check "installed programs are stripped" bash -c '! file "$@" | grep -q "not stripped"' _ "$usr"/bin/*

if ((failures > 0)); then
    echo "$failures package check(s) failed"
    exit 1
fi
echo "every package check passed"
