#!/usr/bin/env bash
# Compares the code in the documents with the sources it is taken from, or with --update puts it there. In a document
#
#     <!-- snippet: FILE [NAME] -->
#
# stands above a code block that is FILE, or what stands in FILE between the lines "[NAME]" and "[/NAME]" in comments,
# without its common indentation. With --links also every link to a file has to lead somewhere.
set -uo pipefail
cd "$(dirname "$0")/../.."
update=
links=
[ "${1:-}" = --update ] && update=yes
[ "${1:-}" = --links ] && links=yes
failed=0
count=0
snippet_line='^<!-- snippet: ([^ ]+)( ([^>]+))? -->$'

# The lines of a snippet: FILE [NAME].
snippet() {
    awk -v name="${2:-}" '
        name != "" && index($0, "[/" name "]") { inside = 0; found = 1 }
        name == "" || inside { lines[++n] = $0 }
        name != "" && index($0, "[" name "]") { inside = 1 }
        END {
            if (n == 0 || (name != "" && !found)) exit 1
            indent = 1000
            for (i = 1; i <= n; i++) {
                match(lines[i], /^ */)
                if (length(lines[i]) > 0 && RLENGTH < indent) indent = RLENGTH
            }
            for (i = 1; i <= n; i++) print substr(lines[i], indent + 1)
        }' "$1"
}

# A document with its snippets as they should be.
renewed() {
    local line file name
    while IFS= read -r line; do
        printf '%s\n' "$line"
        [[ $line == '<!-- snippet'* ]] || continue
        [[ $line =~ $snippet_line ]] || { echo "not understood: $line" >&2; return 1; }
        file=${BASH_REMATCH[1]} name=${BASH_REMATCH[3]}
        IFS= read -r line
        printf '%s\n' "$line"
        snippet "$file" "$name" || { echo "no snippet $name in $file" >&2; return 1; }
        while IFS= read -r line && [ "$line" != '```' ]; do :; done
        printf '```\n'
    done <"$1"
}

for document in README.md docs/*.md; do
    new=$(renewed "$document"; echo "rc=$?")
    [ "${new##*rc=}" = 0 ] || { echo "in $document"; failed=1; continue; }
    new=${new%rc=0}
    if [ -n "$update" ]; then
        printf '%s' "$new" >"$document"
    elif ! diff -u "$document" <(printf '%s' "$new"); then
        echo "$document doesn't show its sources; ./dev docs mends it"
        failed=1
    fi
    count=$((count + $(grep -c '^<!-- snippet: ' "$document")))

    [ -n "$links" ] || continue
    for link in $(grep -oE '\]\([A-Za-z0-9_./-]+[)#]' "$document" | sed 's/^..//; s/.$//'); do
        [ -e "$(dirname "$document")/$link" ] || { echo "$document: a link to $link, which isn't there"; failed=1; }
    done
done
echo "$count snippets"
exit $failed
