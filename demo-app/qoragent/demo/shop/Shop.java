package qoragent.demo.shop;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.net.URL;
import java.sql.Connection;
import java.sql.DriverManager;
import java.sql.PreparedStatement;
import java.sql.ResultSet;
import java.sql.SQLException;
import java.sql.Statement;
import java.util.concurrent.ArrayBlockingQueue;
import java.util.concurrent.BlockingQueue;
import javax.servlet.Filter;
import javax.servlet.ServletException;
import javax.servlet.http.HttpServlet;
import javax.servlet.http.HttpServletRequest;
import javax.servlet.http.HttpServletRequestWrapper;
import javax.servlet.http.HttpServletResponse;
import org.apache.catalina.Context;
import org.apache.catalina.core.StandardServer;
import org.apache.catalina.startup.Tomcat;
import org.apache.tomcat.util.descriptor.web.FilterDef;
import org.apache.tomcat.util.descriptor.web.FilterMap;

/**
 * A shop in a real container with a real database: GET /shop/orders/N?form=F&key=K takes a connection from a
 * pool and waits for the database's lock K in a call of form F; some forms come in a wrapped request. Form
 * "order" changes the order N instead. Arguments: a folder and the JDBC URL. The line "warm" on its input
 * makes it ask itself, for locks that nobody holds, until the next line.
 */
public class Shop extends HttpServlet {
    static final int CONNECTIONS = Integer.getInteger("shop.connections", 8);
    static final String[] FORMS = {"prepared", "plain", "callable", "batch", "fetch", "commit"};
    static final BlockingQueue<Connection> pool = new ArrayBlockingQueue<>(CONNECTIONS);
    static volatile boolean warm;

    public static void main(String[] args) throws Exception {
        int port = open(args[0], args[1]);
        System.out.println("ready " + port);
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in));
        for (String line; (line = in.readLine()) != null;) {
            warm = line.equals("warm");
            for (int i = 0; warm && i < 2; i++) {
                int first = i;
                new Thread(() -> askItself(port, first)).start();
            }
        }
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
        FilterDef wrapper = new FilterDef();
        wrapper.setFilterName("wrapper");
        wrapper.setFilter(
            (Wrapper)(request, response, chain)
                -> chain.doFilter(request.getParameter("form").startsWith("p")
                                      ? new HttpServletRequestWrapper((HttpServletRequest)request)
                                      : request,
                                  response));
        shop.addFilterDef(wrapper);
        FilterMap all = new FilterMap();
        all.setFilterName("wrapper");
        all.addURLPattern("/*");
        shop.addFilterMap(all);
        tomcat.getConnector().setProperty("minSpareThreads", "2");
        tomcat.start();
        return tomcat.getConnector().getLocalPort();
    }

    /** Filter has methods with bodies since Servlet 4.0 alone. */
    interface Wrapper extends Filter {
        default void init(javax.servlet.FilterConfig config) {}
        default void destroy() {}
    }

    static void askItself(int port, int number) {
        try {
            byte[] buffer = new byte[512];
            for (int n = number; warm; n += 2) {
                String at =
                    "http://127.0.0.1:" + port + "/shop/orders/" + n + "?form=" + FORMS[n / 2 % FORMS.length];
                try (InputStream in = new URL(at + "&key=" + (1000 + n)).openStream()) {
                    while (in.read(buffer) >= 0) {
                    }
                }
            }
        } catch (IOException e) {
            System.out.println("asking failed: " + e);
        }
    }

    @Override
    protected void doGet(HttpServletRequest request, HttpServletResponse response)
        throws ServletException, IOException {
        try {
            Connection connection = pool.take();
            String form = request.getParameter("form");
            try {
                if (form.equals("order"))
                    pay(connection, Integer.parseInt(request.getPathInfo().substring(1)));
                else
                    call(connection, form, Integer.parseInt(request.getParameter("key")));
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

    static void call(Connection connection, String form, int key) throws SQLException {
        String lock = "pg_advisory_xact_lock_shared(" + key + ")";
        if (form.equals("prepared") || form.equals("callable")) {
            String sql = "select pg_advisory_xact_lock_shared(?)";
            try (PreparedStatement s = form.equals("prepared") ? connection.prepareStatement(sql)
                                                               : connection.prepareCall(sql)) {
                s.setInt(1, key);
                s.execute();
            }
            return;
        }
        try (Statement s = connection.createStatement()) {
            if (form.equals("plain")) {
                s.executeQuery("select " + lock);
            } else if (form.equals("batch")) {
                s.addBatch("do $$ begin perform " + lock + "; end $$");
                s.executeBatch();
            } else {
                connection.setAutoCommit(false);
                if (form.equals("fetch")) {
                    s.setFetchSize(50);
                    ResultSet rows = s.executeQuery("select case when i > 60 then " + lock +
                                                    "::text end from generate_series(1, 100) i");
                    while (rows.next()) {
                    }
                } else {
                    // its trigger waits at the commit
                    s.executeUpdate("insert into late values (" + key + ")");
                }
                connection.commit();
                connection.setAutoCommit(true);
            }
        }
    }
}
