# bash completion for quillonctl

# The words that may follow a command path such as "radio set", options included.
_quillonctl_words()
{
    local everywhere="--configfile --wait --help"
    case "$1" in
        "") echo "status watch radio port forwarder config say restart reboot pending outbox init check console --version $everywhere" ;;
        status) echo "--watch --json $everywhere" ;;
        watch) echo "--json --radio --kind --count --socket $everywhere" ;;
        radio) echo "list add set enable disable remove $everywhere" ;;
        "radio add") echo "--name --baud --listen-only --disabled $everywhere" ;;
        "radio set") echo "--name --baud --autobaud --listen-only --transmit $everywhere" ;;
        port) echo "list block unblock $everywhere" ;;
        forwarder) echo "list add set enable disable remove $everywhere" ;;
        "forwarder add") echo "raw eraw file duos gcp pubsub stream $everywhere" ;;
        "forwarder add gcp" | "forwarder add pubsub") echo "--topic --endpoint --comment --disabled $everywhere" ;;
        "forwarder add stream") echo "--public --comment --disabled $everywhere" ;;
        "forwarder add "*) echo "--comment --disabled $everywhere" ;;
        "forwarder set") echo "--target --public --credentials --topic --endpoint --comment $everywhere" ;;
        config) echo "list get set $everywhere" ;;
        "config list") echo "--show-secrets --json $everywhere" ;;
        "config get") echo "$(_quillonctl_keys) bdd_release --show-secrets --json $everywhere" ;;
        "config set") echo "$(_quillonctl_keys) $everywhere" ;;
        pending) echo "list clear $everywhere" ;;
        outbox) echo "list show drop $everywhere" ;;
        "outbox show") echo "--json $everywhere" ;;
        "outbox drop") echo "--yes $everywhere" ;;
        *" list") echo "--json $everywhere" ;;
        reboot) echo "--yes $everywhere" ;;
        console) echo "password $everywhere" ;;
        check) echo "--user --spare-working --json $everywhere" ;;
        *) echo "$everywhere" ;;
    esac
}

_quillonctl_keys()
{
    echo "autokill_enabled autokill_user autokill_pwd autokill_url owner_email owner_dept forward_invalid_data outbox_limit"
}

_quillonctl_kinds()
{
    echo "esn comment dspFirmware firmware frontFirmware dpmrCall analogCall dpmrStatus gps battery txPower" \
        "unsolicited query display kill"
}

# The names of serial devices, as the command takes them.
_quillonctl_ports()
{
    local device
    for device in /dev/ttyUSB* /dev/ttyACM* /dev/ttyAMA* /dev/ttyS[0-9] /dev/serial/by-id/*; do
        [ -e "$device" ] && echo "${device#/dev/}"
    done
}

_quillonctl()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local path="" word skip="" position

    # The command path: the subcommands so far, without options and their values.
    for ((position = 1; position < COMP_CWORD; ++position)); do
        word=${COMP_WORDS[position]}
        if [ -n "$skip" ]; then
            skip=""
            continue
        fi
        case "$word" in
            -c | --configfile | --wait) skip=1 ;;
            -*) ;;
            *)
                case " $(_quillonctl_words "$path") " in
                    *" $word "*) [[ $path == config\ ?et ]] || path=${path:+$path }$word ;;
                esac
                ;;
        esac
    done

    case "$previous" in
        -c | --configfile | --credentials | --target | --socket)
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            compopt -o filenames 2>/dev/null
            return
            ;;
        --baud)
            mapfile -t COMPREPLY < <(compgen -W "1200 2400 4800 9600 19200 38400" -- "$current")
            return
            ;;
        --kind)
            mapfile -t COMPREPLY < <(compgen -W "$(_quillonctl_kinds)" -- "$current")
            return
            ;;
        --user)
            mapfile -t COMPREPLY < <(compgen -u -- "$current")
            return
            ;;
        --wait | --name | --topic | --endpoint | --comment | --radio | --count) return ;;
        autokill_enabled | forward_invalid_data)
            [ "$path" = "config set" ] && mapfile -t COMPREPLY < <(compgen -W "true false" -- "$current")
            return
            ;;
    esac

    mapfile -t COMPREPLY < <(compgen -W "$(_quillonctl_words "$path")" -- "$current")
    case "$path" in
        "radio add" | "port block" | "port unblock")
            mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -W "$(_quillonctl_ports)" -- "$current")
            ;;
        "forwarder add file" | "forwarder add gcp" | "forwarder add pubsub" | "forwarder add stream")
            mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$current")
            compopt -o filenames 2>/dev/null
            ;;
    esac
}

complete -F _quillonctl quillonctl
