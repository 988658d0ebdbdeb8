# bash completion for navtwine(8); needs nothing but bash itself

_navtwine()
{
    local cur=${COMP_WORDS[COMP_CWORD]} words

    case ${COMP_WORDS[COMP_CWORD - 1]} in
        --serial)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            return ;;
        --client-remote-host)
            mapfile -t COMPREPLY < <(compgen -A hostname -- "$cur")
            return ;;
        --baud)
            words='4800 9600 19200 38400 57600 115200' ;;
        --datalength)
            words='7 8' ;;
        --stopbits)
            words='1 2' ;;
        --parity)
            words='none odd even' ;;
        --client-protocol)
            words='tcp udp' ;;
        --loglevel)
            words='10 30 50' ;;
        --server-port | --server-passwd | --client-port | --client-passwd | --id | --id-prefix | --interval | --status)
            words='' ;; # free text, nothing to complete
        *)
            words='-e -h --help --version --strict --status --daemonize --no-daemonize --timestamp --no-timestamp
                --immediate --no-immediate
                --server --no-server --server-port --server-passwd
                --client --no-client --client-protocol --client-remote-host --client-port --client-passwd
                --serial --baud --datalength --parity --stopbits --hwflow --rs485
                --id --id-prefix --interval --loglevel'
            local type
            for type in gga gsa gsv gll rmc vtg zda gbs; do
                words+=" --$type --no-$type"
            done ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
} &&
    complete -F _navtwine navtwine
