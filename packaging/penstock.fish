# fish completion for penstock(1). Subcommands, options and what they mean are asked of the program,
# so that they are never old.

function __penstock_listed --description 'A section of a command\'s help: TITLE COMMAND...'
    set -l command $argv[2..-1]
    $command --help 2>/dev/null | awk -v title="$argv[1]:" '
        function tell(  names, count, i) {
            count = split(name, names, ",")
            for (i = 1; i <= count; ++i) print names[i] "\t" meaning
            name = ""
        }
        $0 == title { inside = 1; next }
        !NF { inside = 0; next }
        inside && /^  [^ ]/ {
            tell()
            name = $1
            line = substr($0, 3)
            meaning = match(line, /   *[^ ]/) ? substr(line, RSTART + RLENGTH - 1) : ""
            next
        }
        inside { sub(/^ +/, ""); meaning = meaning (meaning == "" ? "" : " ") $0 }
        END { tell() }'
end

function __penstock_files --description 'Files, or directories only, behind what stays: KEPT [-d]'
    set -l begun (string sub --start (math (string length -- "$argv[1]") + 1) -- (commandline -ct))
    set -l found (__fish_complete_path $begun)
    test "$argv[2]" = -d; and set found (__fish_complete_directories $begun)
    for each in $found
        printf '%s%s\n' "$argv[1]" $each
    end
end

function __penstock_complete
    set -l words (commandline -opc)
    set -l current (commandline -ct)
    set -l kept ''
    if test (count $words) -lt 2
        __penstock_listed Subcommands $words[1]
        __penstock_listed Options $words[1]
        return
    end
    set -l option $words[-1]
    if string match -q '*=*' -- $current # --OPTION=VALUE, VOL=PATH
        set option (string split -m 1 = -- $current)[1]
        set kept $option=
    else if string match -q -- '-*' $current
        __penstock_listed Options $words[1] $words[2]
        return
    end
    switch $option
        case --compress
            printf '%s\n' $kept{none,lz4,zstd,auto}
        case --log-level
            printf '%s\n' $kept{trace,debug,info,warning,error}
        case --log-format
            printf '%s\n' $kept{text,json}
        case --wait
            printf '%s\n' $kept{durable,applied,flushed}
        case --spool --state --tls-certs --volumes
            __penstock_files "$kept" -d
        case --group --identity --interval --jobs --journal-quota --limit-rate --listen \
            --max-dataset --max-lag --memory --metrics --nbd --of --retry-for --spool-max \
            --tls-name --to
        case '*'
            __penstock_files "$kept"
    end
end

complete -c penstock -f -a '(__penstock_complete)'
