#compdef volornctl
# The program tells what completes it, so that this is never older than it is.
source <(volornctl completion zsh)
_volornctl "$@"
