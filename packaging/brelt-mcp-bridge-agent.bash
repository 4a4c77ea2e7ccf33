# bash completion for brelt-mcp-bridge-agent

_brelt_mcp_bridge_agent() {
    local current="$2" option="$3"
    # bash makes a word of "=": --name=value are three
    if [[ "$current" == = ]]; then
        current=
    elif [[ "$option" == = && COMP_CWORD -ge 2 ]]; then
        option="${COMP_WORDS[COMP_CWORD - 2]}"
    fi
    local values=
    case "$option" in
    --services_file | --mcp_token_file | --access_log | --tls_cert_path | --tls_key_path)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    --state_dir)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -d -- "$current")
        return
        ;;
    --mcp_tool_names) values='dotted safe' ;;
    --services_reload) values='off watch' ;;
    --mcp_throttle) values='address failures' ;;
    --mcp_allowed_hosts) values='any local' ;;
    --mcp_interop | --mcp_call_tools | --mcp_progress | --mcp_keep_alive | --stdio | --strict | --check) values='true false' ;;
    --bind) values='127.0.0.1 ::1' ;;
    esac
    if [[ -n "$values" && "$current" != -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$values" -- "$current")
        return
    fi
    mapfile -t COMPREPLY < <(compgen -W '--bind= --port= --mcp_path= --mcp_token= --mcp_token_file= --mcp_allowed_origin=
        --mcp_allowed_hosts= --mcp_throttle= --mcp_interop --mcp_tool_names= --mcp_call_tools --mcp_progress
        --mcp_keep_alive --mcp_keep_alive_connections=
        --stdio --max_answer_bytes= --services_file= --services_reload=
        --access_log= --access_log_max_bytes= --health_path= --metrics_path= --tls_cert_path=
        --tls_key_path= --state_dir= --trail_max_days= --trail_max_bytes= --duration_ms= --strict --check --help --version' -- "$current")
    [[ "${COMPREPLY[*]}" != *= ]] || compopt -o nospace 2>/dev/null
} && complete -F _brelt_mcp_bridge_agent brelt-mcp-bridge-agent
