# bash completion for navtwine(8)

_navtwine()
{
    # shellcheck disable=SC2034 # _init_completion fills all four
    local cur prev words cword
    _init_completion || return

    case $prev in
        --serial)
            _filedir
            return ;;
        --client-remote-host)
            _known_hosts_real -- "$cur"
            return ;;
        --baud)
            mapfile -t COMPREPLY < <(compgen -W '4800 9600 19200 38400 57600 115200' -- "$cur")
            return ;;
        --datalength)
            mapfile -t COMPREPLY < <(compgen -W '7 8' -- "$cur")
            return ;;
        --stopbits)
            mapfile -t COMPREPLY < <(compgen -W '1 2' -- "$cur")
            return ;;
        --parity)
            mapfile -t COMPREPLY < <(compgen -W 'none odd even' -- "$cur")
            return ;;
        --client-protocol)
            mapfile -t COMPREPLY < <(compgen -W 'tcp udp' -- "$cur")
            return ;;
        --loglevel)
            mapfile -t COMPREPLY < <(compgen -W '10 30 50' -- "$cur")
            return ;;
        --server-port | --server-passwd | --client-port | --client-passwd | --id | --id-prefix | --interval)
            return ;; # free text, nothing to complete
    esac

    local options='-e -h --help --daemonize --no-daemonize --timestamp --no-timestamp
        --server --no-server --server-port --server-passwd
        --client --no-client --client-protocol --client-remote-host --client-port --client-passwd
        --serial --baud --datalength --parity --stopbits --hwflow --rs485
        --id --id-prefix --interval --loglevel'
    local type
    for type in gga gsa gsv gll rmc vtg zda gbs; do
        options+=" --$type --no-$type"
    done
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
} &&
    complete -F _navtwine navtwine
