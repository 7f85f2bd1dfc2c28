# Completion of zorv-snapusage for bash, with the functions of bash-completion. Commands and options
# are those of the program's own help; names of shares and snapshots are asked of the program, which
# tells none to others than root.

_zorv_snapusage_help() { zorv-snapusage "$@" --help 2>/dev/null; }

_zorv_snapusage_commands() {
  _zorv_snapusage_help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\) .*/\1/p'
}

# The options in a help text; with "valued" those that a value follows: a word in capitals.
_zorv_snapusage_options() { # help text [valued]
  local value=
  [ -z "${2:-}" ] || value=' [^a-z ][^a-z ]*\( \|:\|$\)'
  sed -n "/^Options:/,/^\$/s/^  \(-[^ ]*\)$value.*/\1/p" <<<"$1" | tr , '\n'
}

# Puts names into the array `names`: of shares, or of a share's snapshots. A volume that does not
# answer must not stop somebody who types.
_zorv_snapusage_names() { # [share]
  mapfile -d '' -t names < <(timeout 3 zorv-snapusage names --null "$@" </dev/null 2>/dev/null)
}

# What a word stands for: its quote or its backslashes gone. Nothing in it is run.
_zorv_snapusage_meaning() { # word
  case $1 in
    \'*) printf %s "${1:1}" ;;
    \"*) printf %s "${1:1}" | sed 's/\\\([\\"$`]\)/\1/g' ;;
    *) printf %s "$1" | sed 's/\\\(.\)/\1/g' ;;
  esac
}

# Offers the candidates that go on from the word that is typed, as the shell has to read them there:
# within the quote that the word has begun with, or with backslashes.
_zorv_snapusage_offer() { # candidates...
  local candidate typed
  case $cur in
    \'*\'* | \"*[^\\]\"*) return ;; # the quote has ended: the rest of the word is anybody's guess
  esac
  typed=$(_zorv_snapusage_meaning "$cur")
  for candidate; do
    [[ $candidate == "$typed"* ]] || continue
    case $cur in
      \'*) candidate=${candidate//\'/\'\\\'\'} ;;
      \"*) candidate=$(printf %s "$candidate" | sed 's/[\\"$`]/\\&/g') ;;
      *) printf -v candidate %q "$candidate" ;;
    esac
    COMPREPLY+=("$candidate")
  done
  __ltrim_colon_completions "$cur"
}

# Offers names for the last of several with separators between them.
_zorv_snapusage_offer_list() { # names...
  local typed before=
  typed=$(_zorv_snapusage_meaning "$cur")
  [[ $typed != *[,%]* ]] || before=${typed%"${typed##*[,%]}"}
  _zorv_snapusage_offer "${@/#/$before}"
}

# Offers the files of a share by their paths from its root, and any file by its absolute path.
_zorv_snapusage_offer_files() { # share
  local directory name typed found=()
  typed=$(_zorv_snapusage_meaning "$cur")
  if [[ $typed == /* ]]; then
    _filedir
    return
  fi
  for directory in /volume[1-9]*/"$1"; do
    [ -n "$1" ] && [ -d "$directory" ] || continue
    for name in "$directory/$typed"*; do
      [ -e "$name" ] || continue
      [ ! -d "$name" ] || name+=/
      found+=("${name#"$directory/"}")
    done
    break
  done
  compopt -o nospace 2>/dev/null
  _zorv_snapusage_offer "${found[@]}"
}

# The columns to sort by, from the answer to one that there is not.
_zorv_snapusage_columns() { # command
  zorv-snapusage "$1" x --sort=? 2>&1 | sed -n 's/.*there are \([a-z_, ]*\);.*/\1/p' | tr -d ,
}

_zorv_snapusage() {
  local cur prev words cword split names=() help usage valued share='' position=0 i
  _init_completion -s -n : || return
  if [ "$cword" = 1 ]; then
    _zorv_snapusage_offer $(_zorv_snapusage_commands) --help --version --exit-statuses
    return
  fi

  help=$(_zorv_snapusage_help "${words[1]}")
  usage=$(sed -n 's/^Usage: //p' <<<"$help")
  valued=" $(_zorv_snapusage_options "$help" valued | tr '\n' ' ') "
  # Which argument it is, and which share the first one names.
  for ((i = 2; i < cword; ++i)); do
    if [[ ${words[i]} == -* ]]; then
      [[ $valued != *" ${words[i]} "* ]] || ((++i))
    elif ((++position == 1)); then
      share=$(_zorv_snapusage_meaning "${words[i]}")
    fi
  done

  if [[ $valued == *" $prev "* ]]; then
    case $prev in
      --format) _zorv_snapusage_offer table json ;;
      --sort) _zorv_snapusage_offer $(_zorv_snapusage_columns "${words[1]}") ;;
      --snapshot | --keep) _zorv_snapusage_names "$share" && _zorv_snapusage_offer "${names[@]}" ;;
      --delete) _zorv_snapusage_names "$share" && _zorv_snapusage_offer_list "${names[@]}" ;;
    esac
  elif [[ $cur == -* ]]; then
    _zorv_snapusage_offer $(_zorv_snapusage_options "$help")
  elif [[ $position -gt 0 && $usage == *SNAPSHOT* ]]; then
    _zorv_snapusage_names "$share" && _zorv_snapusage_offer "${names[@]}"
  elif [[ $usage == *SHARE...* || ($position == 0 && $usage == *SHARE*) ]]; then
    _zorv_snapusage_names && _zorv_snapusage_offer "${names[@]}"
  elif [[ $usage == *PATH* ]]; then
    _zorv_snapusage_offer_files "$share"
  elif [[ $usage == *SETTING* ]]; then
    _zorv_snapusage_offer on off
  fi
}

complete -F _zorv_snapusage zorv-snapusage
