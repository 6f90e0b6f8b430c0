# Completions of velmora-server for fish.
complete -c velmora-server -f
complete -c velmora-server -l config -r -F -d 'Configuration to read'
complete -c velmora-server -l listen -x -d 'Address to listen on'
complete -c velmora-server -l check -d 'Check the configuration and what it names'
complete -c velmora-server -l print-config -d 'Print what is in force, secrets hidden'
complete -c velmora-server -l hash-token -d 'Print the hash of a token from standard input'
complete -c velmora-server -l import-state -r -F -d 'Add a state file to the cluster of the configuration'
complete -c velmora-server -l log-level -x -a 'debug info notice warn error crit alert' -d 'Least severity that is logged'
complete -c velmora-server -l log-format -x -a 'text json' -d 'Form of the log'
complete -c velmora-server -l version -d 'Print the version'
complete -c velmora-server -l help -d 'Print a summary'
