package org.acme.db;

import java.io.IOException;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.net.Socket;

/**
 * The driver for which docs/cross-tier.md writes a rule, in two calls without an answer; beside it an
 * application's own protocol.
 */
public final class Acme {
    public static void main(String[] args) throws Exception {
        ServerSocket server = new ServerSocket(0, 9, InetAddress.getByName("127.0.0.1"));
        for (int i = 0; i < 3; i++) {
            Link link = new Link(server.getLocalPort());
            int number = i;
            start(()
                      -> number == 2
                             ? link.socket.getInputStream().read()
                             : new AcmeStatement(link).executeQuery("select " + link.socket.getLocalPort()));
        }
        System.out.println("ready " + server.getLocalPort());
        while (System.in.read() >= 0)
            continue;
        System.exit(0);
    }

    static void start(java.util.concurrent.Callable<Integer> work) {
        new Thread(new java.util.concurrent.FutureTask<>(work)).start();
    }
}

class Link {
    final String address;
    final String login = "scott";
    final Socket socket;

    Link(int port) throws IOException {
        socket = new Socket("127.0.0.1", port);
        address = "jdbc:acme://127.0.0.1:" + port + "/depot";
    }
}

class Call {
    final Link link;
    final String text;
    long answers;

    Call(Link link, String text) {
        this.link = link;
        this.text = text;
    }

    int send() throws IOException {
        int answer = link.socket.getInputStream().read();
        answers++;
        return answer;
    }
}

class AcmeStatement {
    final Link link;

    AcmeStatement(Link link) { this.link = link; }

    int executeQuery(String sql) throws IOException { return new Call(link, sql).send(); }
}
