#!/usr/bin/env python3
"""Records the first TLS record real clients send, for the ClientHello tests, fuzz seeds and
benchmarks. Every client connects to a listener on 127.0.0.1 that keeps the bytes and hangs up.

    python3 capture.py OUTDIR
"""
import os
import socket
import subprocess
import sys
import shutil
import tempfile
import threading
import time

# Protocol identifiers from the IANA ALPN registry, offered all at once by the large hello.
MANY_PROTOCOLS = ("h2,http/1.1,http/1.0,spdy/3,stun.turn,stun.nat-discovery,webrtc,c-webrtc,"
                  "ftp,imap,pop3,managesieve,coap,xmpp-client,xmpp-server,acme-tls/1,mqtt,dot,"
                  "ntske/1,sunrpc,h3,smb,irc,nntp,nnsp,doq,sip/2,tds/8.0,dicom,postgresql")
LONG_NAME = ".".join(["label%02d-of-a-long-service-name" % i for i in range(6)]) + ".example"

CLIENTS = {
    "openssl_h2": "openssl s_client -connect 127.0.0.1:{port} -servername api.example.com "
                  "-alpn h2,http/1.1 </dev/null",
    "openssl_ffdhe": "openssl s_client -connect 127.0.0.1:{port} -servername "
                     "long-host-name-for-a-large-hello.cdn.example.net -groups ffdhe8192 "
                     "-alpn h2,http/1.1,spdy/3.1 </dev/null",
    "openssl_tls12": "openssl s_client -connect 127.0.0.1:{port} -tls1_2 "
                           "-cipher ECDHE+AESGCM:ECDHE+CHACHA20 -servername h.example.com "
                           "-alpn h2 </dev/null",
    "openssl_tls13": "openssl s_client -connect 127.0.0.1:{port} -tls1_3 -groups x25519 "
                     "-servername h.example.com -alpn h2,http/1.1 </dev/null",
    "openssl_resumed_large": "openssl s_client -connect 127.0.0.1:{port} -sess_in {session} "
                             "-servername " + LONG_NAME + " -groups ffdhe8192:x25519 "
                             "-alpn " + MANY_PROTOCOLS + " </dev/null",
    "openssl_resumed_cas": "openssl s_client -connect 127.0.0.1:{port} -sess_in {session} "
                           "-servername www.example.com -groups ffdhe8192:x25519 "
                           "-requestCAfile {cas} -alpn h2,http/1.1 </dev/null",
    "curl": "curl -sk --max-time 5 --resolve www.example.org:{port}:127.0.0.1 "
            "https://www.example.org:{port}/",
    "python": "python3 -c \"import socket,ssl; c=ssl.create_default_context(); "
              "c.set_alpn_protocols(['http/1.1']); "
              "c.wrap_socket(socket.create_connection(('127.0.0.1',{port})), "
              "server_hostname='pypi.example.net')\"",
    "gnutls": "gnutls-cli --insecure --alpn=h2 --alpn=http/1.1 --sni-hostname=gnutls.example.com "
              "-p {port} 127.0.0.1 </dev/null",
    "gnutls_ffdhe": "gnutls-cli --insecure --alpn=h3 --sni-hostname=big.example.org "
                    "--priority=NORMAL:-GROUP-ALL:+GROUP-FFDHE8192:+GROUP-FFDHE6144:+GROUP-X25519 "
                    "-p {port} 127.0.0.1 </dev/null",
}


def record_first_record(server, path):
    conn, _ = server.accept()
    conn.settimeout(5)
    data = b""
    try:
        while len(data) < 5 or len(data) < 5 + int.from_bytes(data[3:5], "big"):
            chunk = conn.recv(65536)
            if not chunk:
                break
            data += chunk
    finally:
        conn.close()
    with open(path, "wb") as out:
        out.write(data)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def resumable_session(workdir):
    """A TLS 1.3 session from a full handshake with a local openssl s_server."""
    key, cert, session = (os.path.join(workdir, n) for n in ("key.pem", "cert.pem", "sess.pem"))
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", key, "-out", cert,
                    "-days", "1", "-subj", "/CN=" + LONG_NAME[:60]], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    port = free_port()
    server = subprocess.Popen(["openssl", "s_server", "-accept", "127.0.0.1:%d" % port, "-cert",
                               cert, "-key", key, "-naccept", "1", "-quiet"],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    time.sleep(0.5)
    # The client stays a second so that the server's session tickets arrive.
    subprocess.run("sleep 1 | openssl s_client -connect 127.0.0.1:%d -sess_out %s "
                   "-groups ffdhe8192:x25519" % (port, session), shell=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=10)
    server.wait(timeout=10)
    return session


def some_ca_certificates(workdir, count=5):
    """The first few certificates of the system's bundle, whose names the client offers."""
    with open("/etc/ssl/certs/ca-certificates.crt") as bundle:
        blocks = bundle.read().split("-----END CERTIFICATE-----")[:count]
    path = os.path.join(workdir, "cas.pem")
    with open(path, "w") as out:
        out.write("".join(b + "-----END CERTIFICATE-----\n" for b in blocks))
    return path


def main(outdir):
    os.makedirs(outdir, exist_ok=True)
    workdir = tempfile.mkdtemp()
    session = resumable_session(workdir)
    cas = some_ca_certificates(workdir)
    for name, command in CLIENTS.items():
        server = socket.socket()
        server.bind(("127.0.0.1", 0))
        server.listen(1)
        port = server.getsockname()[1]
        path = os.path.join(outdir, name + ".bin")
        recorder = threading.Thread(target=record_first_record, args=(server, path))
        recorder.start()
        subprocess.run(command.format(port=port, session=session, cas=cas), shell=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, timeout=10)
        recorder.join()
        server.close()
        print(name, os.path.getsize(path))
    shutil.rmtree(workdir)


if __name__ == "__main__":
    main(sys.argv[1])
