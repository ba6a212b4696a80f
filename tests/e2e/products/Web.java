import io.grpc.*;
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
import java.net.*;
import java.util.*;
import java.util.concurrent.*;
import javax.servlet.*;
import javax.servlet.http.*;
import org.apache.catalina.startup.Tomcat;
import org.eclipse.jetty.server.Server;
import org.eclipse.jetty.server.ServerConnector;
import org.eclipse.jetty.servlet.ServletContextHandler;
import org.eclipse.jetty.util.ssl.SslContextFactory;

/**
 * Real HTTP and RPC clients that ask real containers, all in here. Prints a line "call THREAD URL" for each call,
 * then "ready". Of its input's lines "call" makes each client ask once, and the containers hold all requests
 * ("held PATH PORT", the port of their side) until the line "rest"; "warm" makes them ask, unheld, until then.
 */
public class Web {
    interface Client {
        void ask(String url) throws Exception;
    }

    static final int OPEN = 99; // more than there are calls
    static final Map<String, Runnable> calls = new LinkedHashMap<>();
    static volatile Semaphore gate = new Semaphore(OPEN);
    static volatile boolean warm;

    static void hold(String path, int port) {
        if (gate.availablePermits() == 0)
            System.out.println("held " + path + " " + port);
        gate.acquireUninterruptibly();
        gate.release();
    }

    static class Page extends HttpServlet {
        @Override
        protected void doGet(HttpServletRequest request, HttpServletResponse response) throws IOException {
            String path = request.getRequestURI();
            if (path.contains("/async/") && request.getDispatcherType() == DispatcherType.REQUEST) {
                request.startAsync().dispatch();
                return;
            }
            byte[] body = new byte[path.contains("/body/") ? 1 : 0];
            response.setContentLength(body.length);
            if (body.length > 0)
                response.flushBuffer();
            hold(path, request.getLocalPort());
            response.getOutputStream().write(body);
        }
    }

    static void addPage(ServletContext context) {
        ServletRegistration.Dynamic page = context.addServlet("page", new Page());
        page.setAsyncSupported(true);
        page.addMapping("/*");
    }

    /** Its keys are those that clients trust. */
    static ServerConnector[] startJetty() throws Exception {
        SslContextFactory.Server keys = new SslContextFactory.Server();
        keys.setKeyStorePath(System.getProperty("javax.net.ssl.trustStore"));
        keys.setKeyStorePassword("secret");
        Server server = new Server();
        ServerConnector[] doors = {new ServerConnector(server), new ServerConnector(server, keys)};
        server.setConnectors(doors);
        addPage(new ServletContextHandler(server, "/shop").getServletContext());
        server.start();
        return doors;
    }

    static int startTomcat() throws Exception {
        Tomcat tomcat = new Tomcat();
        tomcat.setBaseDir(".");
        tomcat.setPort(0);
        tomcat.addContext("/shop", null)
            .addServletContainerInitializer((classes, context) -> addPage(context), null);
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
        var response =
            new DefaultFullHttpResponse(HttpVersion.HTTP_1_1, HttpResponseStatus.OK, Unpooled.EMPTY_BUFFER);
        response.headers().set("Content-Length", 0);
        channel.writeAndFlush(response);
    }

    static String startNetty(boolean isWhole) throws Exception {
        var server =
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
        var address = (InetSocketAddress)server.bind(0).sync().channel().localAddress();
        return "http://127.0.0.1:" + address.getPort();
    }

    static class Text implements MethodDescriptor.Marshaller<String> {
        @Override
        public InputStream stream(String text) {
            return InputStream.nullInputStream();
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
        var bank = ServerServiceDefinition.builder("shop.Bank")
                       .addMethod(CHARGE, ServerCalls.asyncUnaryCall((request, answer) -> {
                           hold("shop.Bank/Charge", port[0]);
                           answer.onNext("");
                           answer.onCompleted();
                       }))
                       .build();
        return port[0] = NettyServerBuilder.forPort(0).addService(bank).build().start().getPort();
    }

    static void addGrpcCall(int port, ClientInterceptor... interceptors) {
        var channel =
            NettyChannelBuilder.forAddress("127.0.0.1", port).usePlaintext().intercept(interceptors).build();
        addCall(url
                -> ClientCalls.blockingUnaryCall(channel, CHARGE, CallOptions.DEFAULT, ""),
                "grpc://127.0.0.1:" + port + "/");
    }

    static void addCall(Client client, String url) {
        String name = "call-" + calls.size();
        System.out.println("call " + name + " " + url);
        calls.put(name, () -> {
            try {
                do {
                    client.ask(url);
                    Thread.sleep(50); // for the compiler
                } while (warm);
            } catch (Exception e) {
                e.printStackTrace();
            }
        });
    }

    static void addCalls() throws Exception {
        ServerConnector[] jetty = startJetty();
        String atJetty = "http://127.0.0.1:" + jetty[0].getLocalPort() + "/shop/";
        String encrypted = "https://127.0.0.1:" + jetty[1].getLocalPort() + "/shop/";
        String atTomcat = "http://127.0.0.1:" + startTomcat() + "/shop/";
        int grpc = startGrpc();
        var four = org.apache.http.impl.client.HttpClients.createDefault();
        var five = org.apache.hc.client5.http.impl.classic.HttpClients.createDefault();
        var three = new okhttp3.OkHttpClient.Builder().readTimeout(0, TimeUnit.SECONDS).build();
        var own = java.net.http.HttpClient.newHttpClient();
        Client client4 = url
            -> four.execute(new org.apache.http.client.methods.HttpGet(url))
                   .getEntity()
                   .getContent()
                   .readAllBytes();
        Client client5 = url
            -> five.execute(new org.apache.hc.client5.http.classic.methods.HttpGet(url), r -> r.getCode());
        Client okhttp =
            url -> three.newCall(new okhttp3.Request.Builder().url(url).build()).execute().close();
        Client connection = url -> new URL(url).openConnection().getInputStream().readAllBytes();
        addCall(client4, atJetty + "plain/1");
        addCall(client5, atJetty + "async/2");
        addCall(connection, encrypted + "plain/3");
        addCall(okhttp, atTomcat + "plain/4");
        addCall(connection, atTomcat + "async/5");
        addCall(okhttp, startNetty(true) + "/whole/6");
        addCall(connection, startNetty(false) + "/pieces/7");
        addCall(client4, atJetty + "body/8");
        addCall(connection, atJetty + "body/9");
        addGrpcCall(grpc);
        addGrpcCall(grpc, MetadataUtils.newAttachHeadersInterceptor(new Metadata()));
        addCall(url
                -> own.send(java.net.http.HttpRequest.newBuilder(URI.create(url)).build(),
                            java.net.http.HttpResponse.BodyHandlers.discarding()),
                atTomcat + "own/10");
    }

    public static void main(String[] args) throws Exception {
        addCalls();
        System.out.println("ready");
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in));
        List<Thread> threads = new ArrayList<>();
        for (String line; (line = in.readLine()) != null;) {
            warm = line.equals("warm");
            gate.release(OPEN);
            for (Thread thread : threads)
                thread.join();
            threads.clear();
            gate = new Semaphore(line.equals("call") ? 0 : OPEN);
            if (!line.equals("rest"))
                calls.forEach((name, call) -> threads.add(new Thread(call, name)));
            threads.forEach(Thread::start);
        }
        System.exit(0);
    }
}
