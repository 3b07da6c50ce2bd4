# SPDX-License-Identifier: MIT
# bash completion for e1212ctl: subcommands, options, channel ids and device names.
_e1212ctl()
{
    # COMP_WORDBREAKS splits "io2:DI0" at the colon: the words are taken from the line instead.
    local line=${COMP_LINE:0:COMP_POINT}
    local -a words
    read -ra words <<<"$line"
    [[ $line == *[[:space:]] ]] && words+=("")
    local cword=$((${#words[@]} - 1))
    local cur=${words[cword]} prev=${words[cword - 1]}

    local commands="info get get-run set pulse blink listen run commands channels devices script shell expect wait simulate panel demo help"
    local globals="--config --ref --device --json --timeout --plugin-dir --keep-going --verbose --help --version"
    local channels="DI0 DI1 DI2 DI3 DI4 DI5 DI6 DI7 DO0 DO1 DO2 DO3 DO4 DO5 DO6 DO7"

    case $prev in
        --config|--screenshot)
            COMPREPLY=($(compgen -f -- "$cur"))
            return ;;
        --plugin-dir)
            COMPREPLY=($(compgen -d -- "$cur"))
            return ;;
        --ref|--device|--timeout|--mask|--on|--off|--count|--for|--within|--poll|--listen|--input|--size)
            return ;;
    esac

    # The subcommand: the first word that is neither an option nor an option's value.
    local i command=
    for ((i = 1; i < cword; i++)); do
        case ${words[i]} in
            --config|--ref|--device|--timeout|--plugin-dir) ((i++)) ;;
            -*) ;;
            *) command=${words[i]}; break ;;
        esac
    done

    if [[ -z $command ]]; then
        if [[ $cur == -* ]]; then
            COMPREPLY=($(compgen -W "$globals" -- "$cur"))
        else
            COMPREPLY=($(compgen -W "$commands" -- "$cur"))
        fi
        return
    fi

    local options=
    case $command in
        set) options="--mask" ;;
        pulse|blink) options="--on --off" ;;
        listen) options="--count --for" ;;
        run) options="--raw" ;;
        script) options="--check" ;;
        expect) options="--within" ;;
        simulate) options="--listen --input" ;;
        panel) options="--poll --screenshot --size" ;;
    esac
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$options $globals" -- "$cur"))
        return
    fi
    # A channel may name its device: NAME:CH.
    local device=
    [[ $cur == *:* ]] && device=${cur%%:*}:
    case $command in
        get|get-run|listen|expect)
            COMPREPLY=($(compgen -P "$device" -W "$channels" -- "${cur#*:}")) ;;
        set|pulse|blink)
            COMPREPLY=($(compgen -P "$device" -W "DO0 DO1 DO2 DO3 DO4 DO5 DO6 DO7" -- "${cur#*:}")) ;;
        run)
            COMPREPLY=($(compgen -W "getPluginIdentity getInfo getValue getValues setValue setValues setBlink listenEvents stopListening" -- "$cur")) ;;
        script)
            COMPREPLY=($(compgen -f -- "$cur")) ;;
        help)
            COMPREPLY=($(compgen -W "$commands" -- "$cur")) ;;
    esac
    # Only what follows the last colon replaces the word being completed.
    if [[ $cur == *:* && $COMP_WORDBREAKS == *:* ]]; then
        local prefix=${cur%"${cur##*:}"} j
        for j in "${!COMPREPLY[@]}"; do COMPREPLY[j]=${COMPREPLY[j]#"$prefix"}; done
    fi
}
complete -o default -F _e1212ctl e1212ctl
