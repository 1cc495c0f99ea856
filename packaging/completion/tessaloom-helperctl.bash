# bash completion for tessaloom-helperctl                     -*- shell-script -*-

_tessaloom_helperctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local commands="version capabilities freshness ps ports kill engine-status generate cancel call session doctor"
  local methods="ProtocolVersion ListProcesses KillProcess ListListeningPorts HelperCapabilities GenerateText
    CancelGeneration QuitIfOutdated GenerationEngineStatus"
  local engines="claudeCode codex"
  local word command='' command_at=0 i

  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    if [[ $word != -* ]]; then
      command=$word
      command_at=$i
      break
    fi
  done

  local candidates=
  case $previous in
    --engine) candidates=$engines ;;
    --shape) candidates="freeText itemFields" ;;
    --signal) candidates="interrupt terminate kill" ;;
    --timeout | --instructions | --id) return ;;
    *)
      if [[ $current == -* ]]; then
        candidates="--json --help --version"
        case $command in
          generate) candidates+=" --engine --shape --instructions --timeout --id" ;;
          kill) candidates+=" --signal" ;;
        esac
      elif [[ -z $command ]]; then
        candidates=$commands
      elif ((COMP_CWORD == command_at + 1)); then
        case $command in
          engine-status) candidates=$engines ;;
          call) candidates=$methods ;;
          kill) candidates=$(tessaloom-helperctl ps 2>/dev/null | awk 'NR > 1 { print $1 }') ;;
        esac
      fi
      ;;
  esac
  # shellcheck disable=SC2207 # None of the candidates holds white space.
  COMPREPLY=($(compgen -W "$candidates" -- "$current"))
}

complete -F _tessaloom_helperctl tessaloom-helperctl
