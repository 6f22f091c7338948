# Completion of volornctl(1) for bash.

_volornctl() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command='' i
  # An equals sign is a word of its own here.
  if [ "$word" = = ]; then
    word=''
  elif [ "$before" = = ]; then
    before=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in
      --state-dir) if [ "${COMP_WORDS[i + 1]}" = = ]; then ((i += 2)); else ((++i)); fi ;;
      -*) ;;
      *) command=${COMP_WORDS[i]} && break ;;
    esac
  done

  local choices=''
  case $before in
    --state-dir) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$word"); return ;;
    --output) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$word"); return ;;
    --format) choices='openmetrics' ;;
    --sort) choices='cpu private resident faults switches' ;;
    --key) choices='wakeupSecsSinceMidnight plannedSecsSinceMidnight nextSecsSinceMidnight thermalLevel
      battery.usageSecs100x battery.standbySecs100x battery.fullyChargedOnce battery.chargedPct100x
      battery.maxCapacity battery.pluggedIn battery.fullyCharged backlightLevel100x uptime.Secs100x
      uptime.load1Min100x uptime.load5Min100x uptime.load15Min100x jetsamLevel' ;;
    --limit | --count | --interval) ;;  # a number
    *)
      case $command in
        '') choices='status metrics history summary top memory' ;;
        status | summary | memory) choices='--json' ;;
        metrics) choices='--json --format --output' ;;
        history) choices='--json --limit --key' ;;
        top) choices='--json --interval --count --sort' ;;
      esac
      choices+=' --help --version --state-dir'
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$word")
}

complete -F _volornctl volornctl
