# fish completion for tessaloom-helperctl

complete --command tessaloom-helperctl --no-files \
    --arguments '(tessaloom-helperctl __complete (commandline -opc)[2..-1] (commandline -ct) 2>/dev/null)'
