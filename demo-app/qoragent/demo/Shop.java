package qoragent.demo;

import java.io.IOException;
import java.net.Socket;
import javax.servlet.ServletRequest;
import javax.servlet.ServletResponse;
import javax.servlet.http.HttpServlet;
import org.apache.catalina.connector.RequestFacade;
import tessar.jdbc.dbaccess.DBAccess;
import tessar.jdbc.driver.TessarConnection;
import tessar.jdbc.driver.TessarPreparedStatement;
import tessar.net.ns.Communication;
import tessar.net.nt.SilentServer;

/** Threads in other tiers: one waits for a database, one serves a URL. Driver and container are models. */
final class Shop {
    private Shop() {}

    /** Asks a database that never answers. */
    static final class Orders extends Actor {
        private static final String USER = "scott";
        private static final String SQL = "select id, total from orders where state = 'open' order by placed";

        private final SilentServer server = new SilentServer();
        private final Communication session = Communication.connect("plain", server.port());
        private final String url = "jdbc:tessar:thin:@127.0.0.1:" + server.port() + ":SHOP";
        private final TessarPreparedStatement statement =
            new TessarPreparedStatement(new TessarConnection(url, USER, new DBAccess(session)), SQL);

        Orders() throws IOException { super("demo-database", Thread.State.RUNNABLE, Feeds.SOCKET_READ); }

        @Override
        String truth() {
            Socket socket = session.socket();
            return "url=" + url + " user=" + USER + " local_port=" + socket.getLocalPort() +
                " remote_port=" + socket.getPort();
        }

        @Override
        void act() throws Exception {
            openOrders();
        }

        private void openOrders() throws IOException { statement.executeQuery(); }
    }

    /** Serves a request, for which it asks another service over a socket. */
    static final class Cart extends Actor {
        private static final String PATH = "/shop/cart";

        private final Socket prices;

        Cart(Socket prices) {
            super("demo-web", Thread.State.RUNNABLE, Feeds.SOCKET_READ);
            this.prices = prices;
        }

        @Override
        String truth() {
            return "url=" + PATH;
        }

        @Override
        void act() {
            new CartServlet().service(new RequestFacade(PATH), null);
        }

        private final class CartServlet extends HttpServlet {
            @Override
            protected void serve(ServletRequest request, ServletResponse response) {
                try {
                    askPrices();
                } catch (IOException e) {
                    throw new IllegalStateException(e);
                }
            }
        }

        private void askPrices() throws IOException { prices.getInputStream().read(); }
    }
}
