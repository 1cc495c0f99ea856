# bash completion for tessaloom-helperctl                     -*- shell-script -*-

_tessaloom_helperctl() {
  local word words=() current=${COMP_WORDS[COMP_CWORD]} prefix quote
  # bash splits words at "=" and ":", the program takes --option=value as one.
  for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
    if ((${#words[@]})) && [[ $word == [=:]* || ${words[-1]} == *[=:] ]]; then
      words[-1]+=$word
    else
      words+=("$word")
    fi
  done
  # The text before the part that bash replaces.
  [[ $current != [=:] ]] || current=
  prefix=${words[-1]%"$current"}
  # In an open quote bash replaces what follows it, as it is.
  quote=${current%%[!\"\']*}
  words[-1]=$prefix${current#"$quote"}
  mapfile -t COMPREPLY < <(tessaloom-helperctl __complete "${words[@]}" 2>/dev/null | cut -f 1)
  COMPREPLY=("${COMPREPLY[@]#"$prefix"}")
  [[ -n $quote || ${#COMPREPLY[@]} -eq 0 ]] || mapfile -t COMPREPLY < <(printf '%q\n' "${COMPREPLY[@]}")
}

complete -F _tessaloom_helperctl tessaloom-helperctl
