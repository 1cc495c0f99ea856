# bash completion for tessaloom-helperctl                     -*- shell-script -*-

_tessaloom_helperctl() {
  local word words=() prefix=
  # bash parts words at "=", the program takes --option=value as one.
  for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
    if ((${#words[@]})) && [[ ${words[-1]} == --* && ($word == = || ${words[-1]} == *=) ]]; then
      words[-1]+=$word
    else
      words+=("$word")
    fi
  done
  [[ ${words[-1]} != --*=* ]] || prefix=${words[-1]%%=*}=
  mapfile -t COMPREPLY < <(tessaloom-helperctl __complete "${words[@]}" 2>/dev/null | cut -f 1)
  COMPREPLY=("${COMPREPLY[@]#"$prefix"}")
}

complete -F _tessaloom_helperctl tessaloom-helperctl
