#!/usr/bin/env bash
# Builds the echo server, talks to it with nc and with our own client, shows what went over the wire, and stops
# it. Fails if a single byte came back wrong.
source "$(dirname "$0")/lib.sh"

install_packages "${native_packages[@]}"
build linux-release --target echo_server echo_client
bin=build/linux-release/bin
scratch=$(mktemp -d)
server=

clean_up() {
    if [[ -n $server ]]; then kill -TERM "$server" 2>/dev/null && wait "$server"; fi
    rm -rf "$scratch"
}
trap clean_up EXIT

# Shows what was sent and what came back, and compares them.
compare() {
    echo "sent:"
    od -A d -t x1z "$scratch/sent" | sed '$d; s/^/    > /'
    echo "received:"
    od -A d -t x1z "$scratch/received" | sed '$d; s/^/    < /'
    cmp "$scratch/sent" "$scratch/received"
}

say "Starting the echo server: any free port, 2 threads for accepting, a private pool of 2 for the clients"
: >"$scratch/output"
"$bin/echo_server" 0 2 2 >"$scratch/output" 2>"$scratch/log" &
server=$!
for _ in {1..100}; do
    port=$(sed -n 's/^listening on 127\.0\.0\.1://p' "$scratch/output")
    [[ -n $port ]] && break
    kill -0 "$server" || { cat "$scratch/log" >&2; exit 1; }
    sleep 0.1
done
cat "$scratch/output"

say "nc sends two lines"
printf 'hello, echo\nand good bye\n' >"$scratch/sent"
nc -N 127.0.0.1 "$port" <"$scratch/sent" >"$scratch/received"
compare

say "echo_client sends a line of its own"
echo "sent through the reactor on both ends" >"$scratch/sent"
"$bin/echo_client" "$port" <"$scratch/sent" >"$scratch/received"
compare

say "nc sends a megabyte"
head -c 1000000 /dev/urandom >"$scratch/sent"
nc -N 127.0.0.1 "$port" <"$scratch/sent" >"$scratch/received"
cmp "$scratch/sent" "$scratch/received"
echo "all of it came back unchanged"

say "Stopping the server"
kill -TERM "$server"
wait "$server"
server=
tail -n 1 "$scratch/output"
cat "$scratch/log"
say "Every byte came back."
