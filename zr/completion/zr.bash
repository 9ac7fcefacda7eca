# bash completion for zr

_zr_words() {
    mapfile -t COMPREPLY < <(compgen -W "$1" -- "$2")
}

_zr_files() {
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$1")
}

# The keys below the one that the word names so far. The word stands as it was typed, in quotes or with backslashes
# doubled; readline puts it back the same way.
_zr_keys() {
    local word=$1 parent name
    case $word in
        \'* | \"*) word=${word:1} ;;
        *) word=${word//\\\\/\\} ;;
    esac
    compopt -o filenames -o nospace 2>/dev/null
    if [[ $word != *\\* ]]; then
        for name in HKCR HKCU HKLM HKU HKEY_CLASSES_ROOT HKEY_CURRENT_USER HKEY_LOCAL_MACHINE HKEY_USERS; do
            [[ ${name,,} == "${word,,}"* ]] && { [[ $name != HKEY_* ]] || [[ ${word,,} == hkey* ]]; } && COMPREPLY+=("$name\\")
        done
        return
    fi
    parent=${word%\\*}
    while IFS= read -r name; do
        [[ $name == *\\ && $name != *$'\t'* ]] || continue
        name=$parent\\$name
        [[ ${name,,} == "${word,,}"* ]] && COMPREPLY+=("$name")
    done < <(zr reg list "$parent" 2>/dev/null)
}

_zr() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
    local group=${COMP_WORDS[1]} command=${COMP_WORDS[2]}
    local fields="--first --middle --last --title --suffix --file-as --company --department --office --job-title
        --work-phone --work-phone-2 --work-fax --home-phone --home-phone-2 --home-fax --mobile --car-phone
        --pager --radio-phone --assistant-phone --work-street --work-city --work-state --work-postal-code
        --work-country --home-street --home-city --home-state --home-postal-code --home-country --other-street
        --other-city --other-state --other-postal-code --other-country --web --note --categories --spouse
        --children --assistant --email --birthday --anniversary"
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        _zr_words "contacts calendar mail reg store net proxy phone provision resolve log modules screen html objects zone watch --help --json --no-pager --version" "$current"
        return
    fi
    case $previous in
        --png) _zr_files "$current"; return ;;
        -s | --sort) _zr_words "file-as first last middle title suffix company email1 email2 email3" "$current"; return ;;
        -f | --folder | -t | --to) [[ $group == mail ]] && return ;;&
        -f | --field)
            _zr_words "file-as title first last suffix company email email1 email2 email3 job-title middle department
                phone address web note categories" "$current"
            return ;;
        -l | --level) [[ $group == modules ]] || _zr_words "failure warning information trace" "$current"; return ;;
        -t | --type)
            if [[ $group == reg ]]; then
                _zr_words "sz expand_sz multi_sz dword qword binary none dword_big_endian mui_sz" "$current"
                return
            fi ;;
        -m | --mbox) _zr_words "mboxo mboxrd mboxcl mboxcl2" "$current"; return ;;
        -F | --format)
            if [[ $group == mail ]]; then
                _zr_words "eml mbox mboxo mboxrd mboxcl mboxcl2 maildir" "$current"
            else
                _zr_words "4 5" "$current"
            fi
            return ;;
        --encoding) _zr_words "utf-16 utf-8 windows-1252" "$current"; return ;;
        --on-duplicate) _zr_words "update skip add" "$current"; return ;;
        --busy) _zr_words "free tentative busy out-of-office" "$current"; return ;;
        --vcard-version) _zr_words "2.1 3.0 4.0" "$current"; return ;;
        -o | --output) _zr_files "$current"; return ;;
    esac
    case $group in
        contacts)
            if ((COMP_CWORD == 2)); then
                _zr_words "import export list find show add change edit remove --help" "$current"
                return
            fi
            case $command in
                import)
                    if [[ $current == -* ]]; then _zr_words "--on-duplicate --dry-run --json --quiet --help" "$current"; else _zr_files "$current"; fi ;;
                export) _zr_words "--output --vcard-version --json --help" "$current" ;;
                list) _zr_words "--sort --reverse --limit --json --help" "$current" ;;
                find) _zr_words "--field --exact --words --begins --json --help" "$current" ;;
                show) _zr_words "--all --json --help" "$current" ;;
                edit) _zr_words "--json --help" "$current" ;;
                add | change) _zr_words "$fields --json --help" "$current" ;;
                remove) _zr_words "--email --all --json --help" "$current" ;;
            esac ;;
        calendar)
            if ((COMP_CWORD == 2)); then
                _zr_words "import export add list show occurrence remove --help" "$current"
                return
            fi
            case $command in
                import)
                    if [[ $current == -* ]]; then _zr_words "--on-duplicate --dry-run --expand --from --to --json --quiet --help" "$current"; else _zr_files "$current"; fi ;;
                add) _zr_words "--start --end --location --body --categories --busy --reminder --task --json --help" "$current" ;;
                export) _zr_words "--output --json --help" "$current" ;;
                list) _zr_words "--from --to --subject --tasks --reverse --limit --json --help" "$current" ;;
                show | occurrence | remove) _zr_words "--json --help" "$current" ;;
            esac ;;
        mail)
            if ((COMP_CWORD == 2)); then
                _zr_words "import export folders list find show attachments move save mark delete meetings watch --help" \
                    "$current"
                return
            fi
            case $command in
                import)
                    if [[ $current == -* ]]; then
                        _zr_words "--folder --mbox --json --quiet --help" "$current"
                    else
                        _zr_files "$current"
                    fi ;;
                export)
                    if [[ $current == -* ]]; then
                        _zr_words "--format --folder --json --quiet --help" "$current"
                    else
                        _zr_files "$current"
                    fi ;;
                list) _zr_words "--reverse --unread --limit --json --help" "$current" ;;
                find) _zr_words "--unread --limit --json --help" "$current" ;;
                show) _zr_words "--headers --html --text --links --script --png --width --height --remote --json --help" "$current" ;;
                attachments) _zr_words "--save --json --help" "$current" ;;
                move) _zr_words "--to --json --help" "$current" ;;
                mark) _zr_words "--read --unread --json --help" "$current" ;;
                delete) _zr_words "--permanently --json --help" "$current" ;;
                meetings) _zr_words "--delete-foreign --json --help" "$current" ;;
                folders | save | watch) _zr_words "--json --help" "$current" ;;
            esac ;;
        reg)
            if ((COMP_CWORD == 2)); then
                _zr_words "get set delete list tree find copy rename diff watch import export --help" "$current"
                return
            fi
            if [[ $current != -* ]]; then
                case $command in
                    get | set | delete | list | tree | watch) ((COMP_CWORD == 3)) && { _zr_keys "$current"; return; } ;;
                    rename) ((COMP_CWORD <= 4)) && { _zr_keys "$current"; return; } ;;
                    find | copy | export) _zr_keys "$current"; return ;;
                    diff)
                        if ((COMP_CWORD == 3)) || [[ $current == HK* || $current == [\'\"]HK* ]]; then
                            _zr_keys "$current"
                        else
                            _zr_files "$current"
                        fi
                        return ;;
                esac
            fi
            case $command in
                get | list) _zr_words "--json --help" "$current" ;;
                set) _zr_words "--type --json --help" "$current" ;;
                delete) _zr_words "--tree --json --help" "$current" ;;
                tree) _zr_words "--depth --keys --json --help" "$current" ;;
                find) _zr_words "--keys --names --data --exact --json --help" "$current" ;;
                copy | diff) _zr_words "--json --help" "$current" ;;
                rename) _zr_words "--value --json --help" "$current" ;;
                watch) _zr_words "--key-only --json --help" "$current" ;;
                import)
                    if [[ $current == -* ]]; then
                        _zr_words "--keep-going --json --quiet --help" "$current"
                    else
                        _zr_files "$current"
                    fi ;;
                export) _zr_words "--output --format --encoding --json --help" "$current" ;;
            esac ;;
        store)
            case $command in
                check | compact) _zr_words "registry contacts mail --json --help" "$current" ;;
                backup)
                    if ((COMP_CWORD == 3)); then _zr_words "registry contacts mail --help" "$current"; else _zr_files "$current"; fi ;;
                recover | restore) _zr_files "$current" ;;
                *) _zr_words "check backup compact recover restore --help" "$current" ;;
            esac ;;
        net)
            case $command in
                status | watch) _zr_words "--json --help" "$current" ;;
                *) _zr_words "status watch --help" "$current" ;;
            esac ;;
        proxy)
            if ((COMP_CWORD == 2)); then
                _zr_words "list show enable disable revert env pac watch --help" "$current"
                return
            fi
            case $command in
                list | show | env | watch) _zr_words "--json --help" "$current" ;;
                pac) _zr_files "$current" ;;
            esac ;;
        phone)
            case $command in
                lines | calls | watch | answer | hangup) _zr_words "--json --help" "$current" ;;
                dial) _zr_words "--line --json --help" "$current" ;;
                *) _zr_words "lines calls watch answer hangup dial --help" "$current" ;;
            esac ;;
        provision)
            if [[ $current == -* ]]; then _zr_words "--dry-run --json --help" "$current"; else _zr_files "$current"; fi ;;
        resolve)
            if [[ $current == -* ]]; then
                _zr_words "--messages --addresses --watch --json --help" "$current"
            else
                _zr_files "$current"
            fi ;;
        objects) _zr_words "--json --help" "$current" ;;
        zone) _zr_words "--next --json --help" "$current" ;;
        watch)
            if [[ $current == -* ]]; then _zr_words "--recursive --ext --only --exec --clock --json --help" "$current"; else _zr_files "$current"; fi ;;
        screen)
            if ((COMP_CWORD == 2)); then
                _zr_words "info fit --help" "$current"
            elif [[ $current == -* ]]; then
                _zr_words "--width --height --split --font --points --start --png --json --help" "$current"
            else
                _zr_files "$current"
            fi ;;
        html)
            if [[ $current == -* ]]; then
                _zr_words "--text --links --script --png --width --height --remote --json --help" "$current"
            else
                _zr_files "$current"
            fi ;;
        modules)
            if [[ $current == -* ]]; then
                _zr_words "--id --version --level --pattern --json --help" "$current"
            else
                _zr_files "$current"
            fi ;;
        log)
            if ((COMP_CWORD == 2)); then
                _zr_words "show --help" "$current"
            elif [[ $current == -* ]]; then
                _zr_words "--level --since --follow --json --help" "$current"
            else
                _zr_files "$current"
            fi ;;
    esac
}

complete -F _zr zr
