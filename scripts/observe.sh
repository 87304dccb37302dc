#!/bin/sh
# observe.sh - prints what a program sees of its container, one observation for each line: name, tab,
# value. Run in containers by compare-podman.sh; uses busybox only.
# shellcheck disable=SC3045,SC2012 # busybox has these limits; the names in /proc and /dev are plain
say() { printf '%s\t%s\n' "$1" "$2"; }
can() {
    name=$1
    shift
    if "$@" >/dev/null 2>&1; then say "$name" yes; else say "$name" no; fi
}
status() { sed -n "s/^$1:[[:blank:]]*//p" /proc/self/status; }

say uid "$(id -u)"
say gid "$(id -g)"
say groups "$(id -G)"
say user-name "$(id -un 2>&1)"
say home "$HOME"
say path "$PATH"
say mode-variable "$MODE"
say variables "$(env | sed 's/=.*//' | sort | tr '\n' ' ')"
say working-directory "$PWD"
say umask "$(umask)"
say open-files "$(ulimit -n) $(ulimit -Hn)"
say processes "$(ulimit -u)"
say core-size "$(ulimit -c)"
say stack-size "$(ulimit -s)"
say capabilities-bounding "$(status CapBnd)"
say capabilities-permitted "$(status CapPrm)"
say capabilities-effective "$(status CapEff)"
say capabilities-inherited "$(status CapInh)"
say capabilities-ambient "$(status CapAmb)"
say no-new-privileges "$(status NoNewPrivs)"
say seccomp "$(status Seccomp)"
say ignored-signals "$(status SigIgn)"
say blocked-signals "$(status SigBlk)"
say oom-score "$(cat /proc/self/oom_score_adj)"
say control-group "$(sed -n 's/^[0-9]*:memory://p; s/^0:://p' /proc/self/cgroup | sort -u | tr '\n' ' ')"
say process-id-of-shell "$$"
say descriptors "$(cd /proc/$$/fd && echo *)"
say session-leader "$(awk '{ print ($6 == $1) ? "yes" : "no" }' /proc/$$/stat)"
say devices "$(ls /dev | tr '\n' ' ')"
say interfaces "$(ls /sys/class/net | tr '\n' ' ')"
say name-servers "$(grep -c '^nameserver' /etc/resolv.conf 2>/dev/null)"
say hosts-localhost "$(grep -c 'localhost' /etc/hosts 2>/dev/null)"
say hosts-own-name "$(grep -c "$(hostname)" /etc/hosts 2>/dev/null)"
say hostname-file "$([ "$(cat /etc/hostname 2>/dev/null)" = "$(hostname)" ] && echo same || echo other)"
say kcore-size "$(head -c 10 /proc/kcore 2>/dev/null | wc -c)"
say shm-mode "$(stat -c %a /dev/shm)"
can loopback-answers ping -c 1 -W 2 127.0.0.1
can write-root touch /observed
can write-working-directory touch observed
can write-tmp touch /tmp/observed
can write-proc-sys sh -c 'echo x >/proc/sys/kernel/domainname'
can write-sys mkdir /sys/observed
can mount mount -t tmpfs none /tmp
can unshare-mounts unshare -m true
can make-device mknod /tmp/null c 1 3
can open-made-device sh -c 'mknod /tmp/null2 c 1 3 && echo x >/tmp/null2'
can change-owner chown 1:1 /tmp/observed
can low-port timeout 1 nc -l -p 80 -w 1 -e true
can reopen-stdout sh -c 'echo -n >/dev/stdout'
