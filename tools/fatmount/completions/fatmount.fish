# Completion of fatmount for fish.

complete -c fatmount -s h -l help -d 'Show the options'
complete -c fatmount -s V -l version -d 'Show the version'
complete -c fatmount -s f -d 'Stay in the foreground'
complete -c fatmount -s d -d 'The same, and show each request'
complete -c fatmount -l json-stats -d 'At the end, one JSON object about the work done'
complete -c fatmount -s o -x -a '(__fish_append , ro sync uid= gid= umask= offset= allow_other)' -d 'Options of the mount'
