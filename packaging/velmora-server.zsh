#compdef velmora-server
_arguments \
    '--config[configuration to read]:file:_files' \
    '--listen[address to listen on]:HOST\:PORT:' \
    '--check[check the configuration and what it names]' \
    '--print-config[print what is in force, secrets hidden]' \
    '--hash-token[print the hash of a token from standard input]' \
    '--import-state[add a state file to the cluster of the configuration]:file:_files' \
    '--log-level[least severity that is logged]:level:(debug info notice warn error crit alert)' \
    '--log-format[form of the log]:format:(text json)' \
    '--version[print the version]' \
    '--help[print a summary]'
