package qoragent.demo.shop;

import java.io.IOException;
import java.sql.Connection;
import java.sql.DriverManager;
import java.sql.PreparedStatement;
import java.sql.SQLException;
import java.util.concurrent.ArrayBlockingQueue;
import java.util.concurrent.BlockingQueue;
import javax.servlet.ServletException;
import javax.servlet.http.HttpServlet;
import javax.servlet.http.HttpServletRequest;
import javax.servlet.http.HttpServletResponse;
import org.apache.catalina.Context;
import org.apache.catalina.core.StandardServer;
import org.apache.catalina.startup.Tomcat;

/**
 * A shop in a real container with a real database: GET /shop/orders/N takes a connection from a pool and
 * changes the order N. Arguments: a folder and the JDBC URL. It ends when its standard input does.
 */
public class Shop extends HttpServlet {
    static final int CONNECTIONS = Integer.getInteger("shop.connections", 8);
    static final BlockingQueue<Connection> pool = new ArrayBlockingQueue<>(CONNECTIONS);

    public static void main(String[] args) throws Exception {
        System.out.println("ready " + open(args[0], args[1]));
        while (System.in.read() >= 0)
            continue;
        System.exit(0);
    }

    /** Opens it on a free port; the port. */
    public static int open(String folder, String database) throws Exception {
        for (int i = 0; i < CONNECTIONS; i++)
            pool.add(DriverManager.getConnection(database));
        Tomcat tomcat = new Tomcat();
        tomcat.setBaseDir(folder);
        ((StandardServer)tomcat.getServer()).setUtilityThreadsAsDaemon(true);
        tomcat.setPort(0);
        Context shop = tomcat.addContext("/shop", null);
        Tomcat.addServlet(shop, "orders", new Shop());
        shop.addServletMappingDecoded("/orders/*", "orders");
        tomcat.getConnector().setProperty("minSpareThreads", "2");
        tomcat.start();
        return tomcat.getConnector().getLocalPort();
    }

    @Override
    protected void doGet(HttpServletRequest request, HttpServletResponse response)
        throws ServletException, IOException {
        try {
            Connection connection = pool.take();
            try {
                pay(connection, Integer.parseInt(request.getPathInfo().substring(1)));
            } finally {
                pool.put(connection);
            }
            response.getWriter().println("done");
        } catch (SQLException | InterruptedException e) {
            throw new ServletException(e);
        }
    }

    static void pay(Connection connection, int order) throws SQLException {
        try (PreparedStatement s = connection.prepareStatement("update orders set state = ? where id = ?")) {
            s.setString(1, "paid");
            s.setInt(2, order);
            s.executeUpdate();
        }
    }
}
