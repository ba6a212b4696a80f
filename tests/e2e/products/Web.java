import io.grpc.*;
import io.grpc.ForwardingClientCall.SimpleForwardingClientCall;
import io.grpc.netty.NettyChannelBuilder;
import io.grpc.netty.NettyServerBuilder;
import io.grpc.stub.*;
import io.netty.bootstrap.ServerBootstrap;
import io.netty.buffer.Unpooled;
import io.netty.channel.*;
import io.netty.channel.Channel;
import io.netty.channel.nio.NioEventLoopGroup;
import io.netty.channel.socket.nio.NioServerSocketChannel;
import io.netty.handler.codec.http.*;
import java.io.*;
import java.net.InetSocketAddress;
import java.net.URL;
import java.util.*;
import java.util.concurrent.TimeUnit;
import java.util.logging.LogManager;
import javax.net.ssl.HttpsURLConnection;
import javax.servlet.*;
import javax.servlet.http.*;
import org.apache.catalina.Context;
import org.apache.catalina.startup.Tomcat;
import org.apache.http.client.methods.HttpGet;
import org.eclipse.jetty.server.Server;
import org.eclipse.jetty.server.ServerConnector;
import org.eclipse.jetty.servlet.ServletContextHandler;
import org.eclipse.jetty.util.ssl.SslContextFactory;

/**
 * Real HTTP and RPC clients that ask real containers, all in here. Arguments: a folder with a key store. Prints
 * a line "call THREAD URL" for each call, then "ready". Of its input's lines "call" makes each client ask once,
 * and the containers hold all requests ("held PATH PORT", the port of their side) until the line "rest"; "warm"
 * makes them ask, unheld, until then.
 */
public class Web {
    interface Client {
        void ask(String url) throws Exception;
    }

    static final Map<String, Runnable> calls = new LinkedHashMap<>();
    static boolean closed;
    static volatile boolean warm;

    static synchronized void hold(String path, int port) {
        if (closed)
            System.out.println("held " + path + " " + port);
        try {
            while (closed)
                Web.class.wait();
        } catch (InterruptedException e) {
            throw new IllegalStateException(e);
        }
    }

    static synchronized void setClosed(boolean now) {
        closed = now;
        Web.class.notifyAll();
    }

    static class Page extends HttpServlet implements Filter {
        @Override
        protected void doGet(HttpServletRequest request, HttpServletResponse response) throws IOException {
            if (request.getRequestURI().contains("/async/") &&
                request.getDispatcherType() == DispatcherType.REQUEST) {
                request.startAsync().dispatch();
                return;
            }
            byte[] body = new byte[request.getRequestURI().contains("/body/") ? 1 : 0];
            response.setContentLength(body.length);
            if (body.length > 0)
                response.flushBuffer();
            hold(request.getRequestURI(), request.getLocalPort());
            response.getOutputStream().write(body);
        }

        @Override
        public void doFilter(ServletRequest request, ServletResponse response, FilterChain chain)
            throws IOException, ServletException {
            String path = ((HttpServletRequest)request).getRequestURI();
            if (path.contains("/filter/"))
                hold(path, request.getLocalPort());
            else
                chain.doFilter(path.contains("/wrapped/")
                                   ? new HttpServletRequestWrapper((HttpServletRequest)request)
                                   : request,
                               response);
        }

        @Override
        public void init(FilterConfig config) {}
    }

    static void addPages(ServletContext context) {
        ServletRegistration.Dynamic page = context.addServlet("page", new Page());
        page.setAsyncSupported(true);
        page.addMapping("/*");
        FilterRegistration.Dynamic filter = context.addFilter("filter", new Page());
        filter.setAsyncSupported(true);
        filter.addMappingForUrlPatterns(EnumSet.of(DispatcherType.REQUEST), true, "/*");
    }

    static int[] startJetty(String folder) throws Exception {
        SslContextFactory.Server keys = new SslContextFactory.Server();
        keys.setKeyStorePath(folder + "/keys");
        keys.setKeyStorePassword("secret");
        Server server = new Server();
        ServerConnector plain = new ServerConnector(server), encrypted = new ServerConnector(server, keys);
        server.addConnector(plain);
        server.addConnector(encrypted);
        ServletContextHandler shop = new ServletContextHandler(server, "/shop");
        addPages(shop.getServletContext());
        server.start();
        return new int[] {plain.getLocalPort(), encrypted.getLocalPort()};
    }

    static int startTomcat(String folder) throws Exception {
        Tomcat tomcat = new Tomcat();
        tomcat.setBaseDir(folder);
        tomcat.setPort(0);
        Context shop = tomcat.addContext("/shop", null);
        shop.addServletContainerInitializer((classes, context) -> addPages(context), null);
        tomcat.getConnector();
        tomcat.start();
        return tomcat.getConnector().getLocalPort();
    }

    static ChannelHandler handler(boolean isWhole) {
        return isWhole ? new SimpleChannelInboundHandler<HttpRequest>() {
            @Override
            protected void channelRead0(ChannelHandlerContext context, HttpRequest request) {
                answer(context.channel(), request);
            }
        } : new ChannelInboundHandlerAdapter() {
            @Override
            public void channelRead(ChannelHandlerContext context, Object message) {
                if (message instanceof HttpRequest)
                    answer(context.channel(), (HttpRequest)message);
            }
        };
    }

    static void answer(Channel channel, HttpRequest request) {
        hold(request.uri(), ((InetSocketAddress)channel.localAddress()).getPort());
        DefaultFullHttpResponse response =
            new DefaultFullHttpResponse(HttpVersion.HTTP_1_1, HttpResponseStatus.OK, Unpooled.EMPTY_BUFFER);
        response.headers().set("Content-Length", 0);
        channel.writeAndFlush(response);
    }

    static int startNetty(boolean isWhole) throws Exception {
        ServerBootstrap server =
            new ServerBootstrap().group(new NioEventLoopGroup(2)).channel(NioServerSocketChannel.class);
        server.childHandler(new ChannelInitializer<Channel>() {
            @Override
            protected void initChannel(Channel channel) {
                channel.pipeline().addLast(new HttpServerCodec());
                if (isWhole)
                    channel.pipeline().addLast(new HttpObjectAggregator(1000));
                channel.pipeline().addLast(handler(isWhole));
            }
        });
        return ((InetSocketAddress)server.bind(0).sync().channel().localAddress()).getPort();
    }

    static class Text implements MethodDescriptor.Marshaller<String> {
        @Override
        public InputStream stream(String text) {
            return new ByteArrayInputStream(new byte[0]);
        }

        @Override
        public String parse(InputStream in) {
            return "";
        }
    }

    static final MethodDescriptor<String, String> CHARGE =
        MethodDescriptor.<String, String>newBuilder(new Text(), new Text())
            .setType(MethodDescriptor.MethodType.UNARY)
            .setFullMethodName("shop.Bank/Charge")
            .build();

    static int startGrpc() throws Exception {
        int[] port = {0};
        ServerServiceDefinition bank =
            ServerServiceDefinition.builder("shop.Bank")
                .addMethod(CHARGE,
                           ServerCalls.asyncUnaryCall((String request, StreamObserver<String> answer) -> {
                               hold("shop.Bank/Charge", port[0]);
                               answer.onNext("");
                               answer.onCompleted();
                           }))
                .build();
        return port[0] = NettyServerBuilder.forPort(0).addService(bank).build().start().getPort();
    }

    static Client callGrpc(int port, boolean isWrapped) {
        ManagedChannel channel = NettyChannelBuilder.forAddress("127.0.0.1", port).usePlaintext().build();
        io.grpc.Channel used = isWrapped ? ClientInterceptors.intercept(channel, new ClientInterceptor() {
            @Override
            public <Q, A> ClientCall<Q, A> interceptCall(MethodDescriptor<Q, A> method, CallOptions options,
                                                         io.grpc.Channel next) {
                return new SimpleForwardingClientCall<Q, A>(next.newCall(method, options)) {};
            }
        }) : channel;
        return url -> ClientCalls.blockingUnaryCall(used, CHARGE, CallOptions.DEFAULT, "");
    }

    static void askByConnection(String url) throws IOException {
        try (InputStream in = new URL(url).openConnection().getInputStream()) {
            byte[] buffer = new byte[10];
            while (in.read(buffer) >= 0) {
            }
        }
    }

    /** Clients trust the key store's one certificate. */
    static void trust(String folder) throws Exception {
        System.setProperty("javax.net.ssl.trustStore", folder + "/keys");
        System.setProperty("javax.net.ssl.trustStorePassword", "secret");
        HttpsURLConnection.setDefaultHostnameVerifier((host, session) -> true);
    }

    static void addCall(Client client, String url) {
        String name = "call-" + calls.size();
        System.out.println("call " + name + " " + url);
        calls.put(name, () -> {
            try {
                do
                    client.ask(url);
                while (warm);
            } catch (Exception e) {
                e.printStackTrace();
            }
        });
    }

    static void addCalls(String folder) throws Exception {
        int[] jetty = startJetty(folder);
        int tomcat = startTomcat(folder), grpc = startGrpc();
        org.apache.http.client.HttpClient four = org.apache.http.impl.client.HttpClients.createDefault();
        org.apache.hc.client5.http.classic.HttpClient five =
            org.apache.hc.client5.http.impl.classic.HttpClients.createDefault();
        okhttp3.OkHttpClient three =
            new okhttp3.OkHttpClient.Builder().readTimeout(0, TimeUnit.SECONDS).build();
        Client client4 =
            url -> org.apache.http.util.EntityUtils.toByteArray(four.execute(new HttpGet(url)).getEntity());
        Client client5 = url
            -> five.execute(new org.apache.hc.client5.http.classic.methods.HttpGet(url), r -> r.getCode());
        Client okhttp =
            url -> three.newCall(new okhttp3.Request.Builder().url(url).build()).execute().close();
        String atJetty = "http://127.0.0.1:" + jetty[0], atTomcat = "http://127.0.0.1:" + tomcat;
        addCall(client4, atJetty + "/shop/plain/1");
        addCall(client5, atJetty + "/shop/wrapped/2");
        addCall(okhttp, atJetty + "/shop/filter/3");
        addCall(Web::askByConnection, atJetty + "/shop/async/4");
        addCall(Web::askByConnection, "https://127.0.0.1:" + jetty[1] + "/shop/plain/5");
        addCall(client4, atTomcat + "/shop/wrapped/6");
        addCall(okhttp, atTomcat + "/shop/async/7");
        addCall(client5, atTomcat + "/shop/filter/8");
        addCall(okhttp, "http://127.0.0.1:" + startNetty(true) + "/whole/9");
        addCall(Web::askByConnection, "http://127.0.0.1:" + startNetty(false) + "/pieces/10");
        addCall(client4, atJetty + "/shop/body/11");
        addCall(Web::askByConnection, atJetty + "/shop/body/12");
        addCall(callGrpc(grpc, false), "grpc://127.0.0.1:" + grpc + "/");
        addCall(callGrpc(grpc, true), "grpc://127.0.0.1:" + grpc + "/");
        try {
            addCall((Client)Class.forName("WebOf11").getConstructor().newInstance(),
                    atTomcat + "/shop/plain/13");
        } catch (ClassNotFoundException e) {
            System.out.println("no java.net.http here");
        }
    }

    public static void main(String[] args) throws Exception {
        LogManager.getLogManager().reset();
        trust(args[0]);
        addCalls(args[0]);
        System.out.println("ready");
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in));
        List<Thread> threads = new ArrayList<>();
        for (String line; (line = in.readLine()) != null;) {
            warm = line.equals("warm");
            setClosed(line.equals("call"));
            for (Thread thread : threads)
                thread.join();
            threads.clear();
            if (!line.equals("rest"))
                calls.forEach((name, call) -> threads.add(new Thread(call, name)));
            threads.forEach(Thread::start);
        }
        System.exit(0);
    }
}
