// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/help.h"

namespace simulator {
namespace {

const char *const Description = R"HELP(
Plays remote devices: each connects to a receiving server, sends numbered messages and ends.

A message's payload is the text
    d<device>-<number> <padding>
Devices and messages are numbered from 1; the padding, letters, fills the payload up to --size
bytes. A payload that is longer than --size without any padding is sent as it is. --framing says
what surrounds it:
    lines, crlf     a line end behind it: LF, or CR LF
    length [BYTES [big|little [all]]]
                    its length before it, in 1, 2 or 4 bytes; all: they count themselves, too.
                    Without more words: 4 big
    fixed BYTES [FILL]
                    filled up to this size with FILL, a byte in hex; 00 without it
    marks START END [ESCAPE [FLIP]]
                    between these bytes, all in hex. In the payload, a START, END or ESCAPE has an
                    ESCAPE before it, and the bits of FLIP inverted. hdlc is: marks 7e 7e 7d 20
    none            nothing

Other payloads come from --messages-from and --template. A template is a text with placeholders:
    {device} {number}            both from 1
    {time} {time:FORMAT}         UTC, as 2026-11-23T11:20:05.123Z, or in a format of Qt, as hhmmss.zzz
    {time-s} {time-ms}           seconds or milliseconds since 1970
    {random:MIN..MAX}            a random number; the same for the same --seed, device and message
    {letters:N}                  N letters
    {line}                       the line of --messages-from
    {xor8} {sum8} {crc16} {crc16-arc} {crc16-modbus} {crc16-ccitt} {crc16-xmodem} {crc32}
                                 a check sum of what is before it; or only of what is between {begin}
                                 and {end}, if they are there. {crc16} is that of qChecksum()
A colon and a form may be behind a number, as in {number:u16be}: dec, hex, HEX, all three also with a
count of digits, as in dec5; or bytes: u8, u16be, u16le, u32be, u32le, u64be, u64le. Numbers are dec
without it, check sums HEX. In templates, and in lines read as text, \n, \r, \t, \0, \\, \{ and \xNN stand
for a byte. A brace that has no small letter behind it stands for itself.

How a device ends when everything is sent (--close):
    close       closes at once (FIN). With TLS: close_notify and FIN, then it reads until the peer
                closes, at most 5 s: closing over unread data would reset the connection.
    half-close  sends FIN (with TLS after close_notify), then waits for the peer to close
    abort       resets the connection (RST) once the peer's kernel has acknowledged everything
    stay        stays connected until --linger-ms has passed, the peer closes or a signal comes

Faulty devices (--fault); what the peer does then does not count as a failure:
    silent                 connects and sends nothing, then waits for the peer to close
    garbage                sends --size random bytes a message, without framing and without TLS
    abort-handshake        resets the connection after its TLS ClientHello
    close-notify-only      ends TLS with close_notify and keeps TCP open
    close-without-reading  closes without having read what the peer sent after the handshake

A script (--script) has a step a line; each device plays it:
    send TEXT             sends a message; TEXT is a template
    send-raw TEXT         sends these bytes without any framing
    pause TIME            waits, after everything before was sent: 200ms, 1.5s, 2min, 1h
    repeat N ... end      plays the lines in between N times, and without N for ever
    close, reset          ends the connection
    half-close            sends FIN and waits for the peer to close; a line wait-close TIME behind it
                          limits that
    wait-close [TIME]     waits for the peer to close, then closes; at most so long
    # ...                 is a comment
The first step connects. So does the next one behind a step that has ended the connection. At its end
the script closes.

SIGUSR1 writes a line with the numbers so far to standard error.

A recording of inputhost --record is played by --replay: each recorded connection is a device, which
connects at its time, sends what came together at its time, and ends as recorded: a reset as reset, any
other end by closing. The file is read into memory as a whole. --speed says how fast; with max nothing
waits, and --parallel or --opening may be needed. --mutate changes the bytes: of eight writes, by chance,
one has a bit flipped, one loses a byte, one has a byte twice, one is sent as two, four stay.

A signal (SIGINT, SIGTERM) ends the run: devices finish the message they have begun and close. A
second one, or two seconds, makes them close at once.

At the end a report says of each connection what the kernel accepted of it, and how it ended:
    closed, reset  by the device
    unanswered     by the device: it had sent its FIN and waited for the peer's in vain
    abandoned      by the device: after a signal it could not end properly in time
    peer-closed    by the peer, when everything was sent
    failed         not connected, or ended by the peer before everything was sent
With --output json it is one object: "connections" is an array of objects with device, connection,
localAddress, localPort, messages, bytes, sha1, opened, resumed, failed, end, error, startMs, openMs,
endMs (milliseconds since the start); "summary" has opened, resumed, failed, messages, bytes, elapsedMs,
interrupted.

Examples:
    devicesim --messages 10
    devicesim --connections 3000 --parallel 50 --messages 20 --rate 5 --close half-close
    devicesim --framing length --segments random --seed 7 --pause-ms 0-20 --messages 1000
    devicesim --messages 100 --rate 1 --framing crlf \
        --template '${begin}GPTXT,{device},{time:hhmmss.zzz}{end}*{xor8}'
    devicesim --messages-from positions.hex --messages-as hex --framing 'length 2 big'
    devicesim --script login.txt --connections 50
    devicesim --tls --ca ca.pem --cert device.pem --key device.key --server-name receiver.example

Exit status: 0 everything was sent; 1 a connection failed or was cut short; 2 wrong command line or
unusable file.)HELP";

} // namespace

QString description()
{
    return QString::fromUtf8(Description).trimmed();
}

QList<QCommandLineOption> knownOptions()
{
    const struct
    {
        const char *name;
        const char *description;
        const char *value = "";
    } table[] = {
            {"host", "Where to connect: address or name. Default: 127.0.0.1.", "host"},
            {"port", "Default: 7446.", "port"},
            {"bind",
             "Source address, or a range FIRST-LAST of IPv4 addresses used in turn. May be "
             "repeated. "
             "Default: the kernel's choice.",
             "address"},
            {"connections", "Devices in all, at most 10000000. Default: 1.", "n"},
            {"parallel", "At most so many open at once; 0: all. Default: 0.", "n"},
            {"opening",
             "At most so many new devices connecting or in their TLS handshake at once; 0: no "
             "limit. "
             "Default: 0.",
             "n"},
            {"connect-rate", "Devices started per second; 0: no limit. Default: 0.", "rate"},
            {"connect-timeout-ms", "For connecting and TLS handshake. Default: 30000.", "ms"},
            {"messages", "Messages a device sends; 0: until stopped. Default: 1.", "n"},
            {"reconnect",
             "Times a device closes and connects again, spread evenly over its messages, whose "
             "numbers go on. Default: 0.",
             "k"},
            {"size", "Payload bytes of a message. Default: 64.", "bytes"},
            {"framing",
             "lines, crlf, length, fixed, marks, hdlc or none, see above. Default: lines.",
             "framing"},
            {"messages-from",
             "Send the lines of this file, each a payload, instead of numbered messages. Each "
             "device "
             "sends all of them once, or as many as --messages says: behind the last line the "
             "first "
             "one comes again. With -, each device sends each line of standard input "
             "as soon as it has come.",
             "file"},
            {"messages-as",
             "What such a line is: text with escapes, plain (as it is) or hex; or whole: the file "
             "is "
             "one payload. Default: text.",
             "syntax"},
            {"template", "Send this payload instead, see above.", "text"},
            {"rate", "Messages per second and device; 0: as fast as TCP takes them. Default: 0.",
             "rate"},
            {"segments",
             "How the stream is cut into writes: whole (a message each), byte (one byte each), "
             "random (also across messages) or blocks (64 KiB each, also across messages: the "
             "cheapest). Default: whole.",
             "segments"},
            {"seed", "For everything random; the same seed gives the same cuts. Default: 1.", "n"},
            {"pause-ms", "Random pause between two writes, or one number. Default: 0.", "min-max"},
            {"close", "close, half-close, abort or stay. Default: close.", "close"},
            {"linger-ms",
             "Limit for the waiting of half-close, stay and the faulty devices. Default: none.",
             "ms"},
            {"fault", "Be faulty, see above.", "fault"},
            {"tls", "Speak TLS."},
            {"ca", "PEM file of the authorities trusted. Default: the system's.", "file"},
            {"cert", "PEM file with the client certificate (chain).", "file"},
            {"key", "PEM file with its key.", "file"},
            {"tls-version", "1.2 or 1.3 only. Default: either.", "version"},
            {"insecure", "Do not verify the server's certificate."},
            {"resume",
             "Resume the last TLS session that a server has given in this run. The first device "
             "goes alone: until it has ended, there is none."},
            {"record-size",
             "Most bytes of a TLS record, 512 to 16384, before encryption. Default: 16384.",
             "bytes"},
            {"server-name", "Name expected in the certificate. Default: the host.", "name"},
            {"script", "Each device plays this script, see above.", "file"},
            {"replay", "Play a recording; the devices' own options do not go with it.", "file"},
            {"speed", "Of the replay: 1 to 100 times as fast, or max. Default: 1.", "speed"},
            {"mutate", "Change the recorded bytes, the same way for the same number.", "seed"},
            {"output", "Report as text or json. Default: text.", "format"},
            {"quiet", "Report the summary only, no line per connection."},
            {"progress",
             "Show on standard error how far the run is, also where that is no terminal: a line a "
             "second."},
            {"no-progress", "Do not show it on a terminal either."},
            {"no-checksum", "Do not compute the SHA-1 of what was sent: cheaper under load."},
    };
    QList<QCommandLineOption> options;
    for (const auto &row : table)
        options.append(QCommandLineOption(QLatin1String(row.name), QLatin1String(row.description),
                                          QLatin1String(row.value)));
    return options;
}

} // namespace simulator
