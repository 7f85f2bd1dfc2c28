# What a line becomes when TAB is typed behind it, in a real shell with a terminal of its own:
#   zsh -f complete.zsh bash|zsh COMPLETION_FOLDER LINE...
# An empty folder stands for what is installed, where the shells find it by themselves.
# Each LINE follows the word zorv-snapusage. Prints, a line for each, the words that the program
# would have got; of what does not become one command within a minute, "no command".
zmodload zsh/zpty
shell=$1 folder=$2
shift 2

# Takes the place of the program when the line is run, and shows its words.
show='zorv-snapusage() { case "$1 ${@: -1}" in names*|*--help) command zorv-snapusage "$@" ;;
  *) printf "<%s>" "$@"; echo " EN''D" ;; esac; }'
case $shell in
  bash)
    command=(bash --norc --noprofile -i)
    setup="PS1=; . /usr/share/bash-completion/bash_completion; ${folder:+. $folder/zorv-snapusage.bash;} $show"
    ;;
  zsh)
    command=(zsh -f -i)
    setup="PS1=; ${folder:+fpath=($folder \$fpath);} autoload -Uz compinit; compinit -u -D; $show"
    ;;
esac

export TERM=dumb INPUTRC=/dev/null
for typed; do
  zpty terminal $command
  zpty -w terminal "$setup; echo REA''DY"
  zpty -r -m terminal output '*READY*'
  zpty -w -n terminal "zorv-snapusage $typed"$'\t\n'
  output= piece=
  for (( i = 0; i < 600; ++i )); do
    while zpty -r -t terminal piece; do output+=$piece; done
    [[ $output == *' END'* ]] && break
    sleep 0.1
  done
  zpty -d terminal
  [[ $output == *' END'* ]] || output='no command END'
  print -r -- "${${output%% END*}##*[[:cntrl:]]}"
done
