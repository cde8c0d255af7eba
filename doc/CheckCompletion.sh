#!/bin/bash
# bash CheckCompletion.sh PROGRAM COMPLETION
# Fails unless COMPLETION, loaded as bash-completion loads it, offers every option that
# PROGRAM --help lists, the schemes it lists after --conf, and paths after --rec-dev.
set -u
source /usr/share/bash-completion/bash_completion && source "$2" && complete -p quarvel || exit 1

# The sorted words offered at the end of the command line $1, as bash splits it.
offered() {
    COMP_LINE=$1 COMP_POINT=${#1}
    read -ra COMP_WORDS <<<"$1"
    [[ $1 == *' ' ]] && COMP_WORDS+=('')
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    _quarvel quarvel "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}" 2>/dev/null
    printf '%s\n' "${COMPREPLY[@]%=}" | sort | xargs
}

help=$("$1" --help) || exit 1
options=$(sed -n 's/^  \(-h \[ \)\{0,1\}\(--[a-z-]*\).*/\2/p' <<<"$help" | sort | xargs)
schemes=$(sed -n '/^Schemes/,/^$/s/^  \([a-z0-9]*\) .*/\1/p' <<<"$help" | sort | xargs)
status=0
for check in "quarvel --|$options" "quarvel --conf |$schemes" "quarvel --rec-dev /dev/nul|/dev/null"; do
    got=$(offered "${check%|*}")
    echo "'${check%|*}': $got"
    [[ -n ${check#*|} && $got == "${check#*|}" ]] || { echo "  expected: ${check#*|}"; status=1; }
done
exit $status
