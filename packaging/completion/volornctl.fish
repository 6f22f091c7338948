# The program tells what completes it, so that this is never older than it is.
volornctl completion fish | source
