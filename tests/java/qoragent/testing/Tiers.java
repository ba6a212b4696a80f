package qoragent.testing;

import com.halcyon.server.http.HalcyonHttpServletRequest;
import com.halcyon.util.ByteString;
import com.ibm.ws.webcontainer.srt.SRTServletRequest;
import com.sun.el.MethodExpressionImpl;
import com.sun.el.ValueExpressionImpl;
import com.sun.jersey.server.impl.application.WebApplicationImpl;
import ferrule.rjvm.RJVM;
import ferrule.rjvm.ResponseImpl;
import ferrule.rmi.cluster.ClusterableRemoteRef;
import ferrule.rmi.spi.Channel;
import ferrule.servlet.internal.RequestEventsFilter$EventsRequestWrapper;
import ferrule.servlet.internal.ServletRequestImpl;
import ferrule.servlet.internal.ServletStubImpl;
import ferrule.work.ExecuteThread;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.URI;
import java.util.Arrays;
import java.util.List;
import javax.servlet.ServletRequest;
import javax.servlet.ServletResponse;
import javax.servlet.http.HttpServlet;
import org.apache.catalina.connector.RequestFacade;
import org.apache.jserv.JServConnection;
import org.codehaus.groovy.runtime.callsite.AbstractCallSite;
import org.codehaus.groovy.runtime.callsite.CallSiteArray;
import org.glassfish.jersey.server.model.ResourceMethodInvoker;
import tessar.kvo.ExprEval;
import tessar.kvo.server.EntityImpl;
import tessar.kvo.server.TransactionEvent;
import tessar.kvo.server.ViewAttributeDefImpl;
import tessar.kvo.server.ViewObjectImpl;
import tessar.kvo.server.ViewRowImpl;
import tessar.qrfinternal.controller.engine.ControlFlowEngine;
import tessar.qrfinternal.controller.state.ChildViewPortContextImpl;
import tessar.qrfinternal.controller.state.ViewPortContextImpl;
import tessar.qrfinternal.view.faces.activedata.AdsFilter;

/**
 * Threads that stand in calls of other tiers, one for each server and framework, named "zoo-" and their kind.
 */
public final class Tiers {
    private static final String SCRIPT = "orders.load()\norders.check()\norders.save()\n";

    private Tiers() {}

    /** Starts all kinds; each is in its call when this returns. */
    public static void start() throws Exception {
        for (Resident call : all())
            Zoo.admit(call);
    }

    /** What a thread does, with `work` as its innermost call. */
    private interface Scene {
        void play(Runnable work);
    }

    private static Resident call(String kind, Scene scene) {
        return Resident.parked(kind, gate -> scene.play(gate::pass));
    }

    private static final class Servlet extends HttpServlet {
        private final Runnable work;

        Servlet(Runnable work) { this.work = work; }

        @Override
        protected void serve(ServletRequest request, ServletResponse response) {
            work.run();
        }
    }

    private static Scene serving(ServletRequest request) {
        return work -> new Servlet(work).service(request, null);
    }

    private static List<Resident> all() {
        byte[] bytes = "GET /lumo HTTP".getBytes();
        ServletRequest faces = new ServletRequestImpl("/faces/page", null);
        AbstractCallSite site = new AbstractCallSite(new CallSiteArray("load", "check", "save"), 1, "check");
        return Arrays.asList(
            call("jserv", work -> new JServConnection("/jserv", work).run()),
            call("ferrule-run", work -> new ServletRequestImpl("/ferrule", work).run()),
            call("ferrule-execute", work -> new ServletRequestImpl("/ferrule", work).execute()),
            call("ferrule-service", work -> new ServletRequestImpl("/ferrule", work).service()),
            call("tomcat", serving(new RequestFacade("/tomcat"))),
            call("lumo", serving(new HalcyonHttpServletRequest(new ByteString(bytes, 4, 5)))),
            call("websphere", serving(new SRTServletRequest("/websphere"))),
            call("jersey",
                 work
                 -> new ResourceMethodInvoker().invoke(
                     new org.glassfish.jersey.server.ContainerRequest("GET", URI.create("http://h/a/b?c")),
                     work)),
            call("sun-jersey",
                 work
                 -> new WebApplicationImpl().handleRequest(
                     new com.sun.jersey.spi.container.ContainerRequest("POST", URI.create("http://h/c")),
                     work)),
            call(
                "filter",
                work
                -> new AdsFilter().doFilter(new RequestEventsFilter$EventsRequestWrapper(faces), null, work)),
            call("page",
                 work
                 -> new ControlFlowEngine().performControlFlow(
                     new ChildViewPortContextImpl(new ViewPortContextImpl("/pages/orders.jspx")), work)),
            call("view", work -> new ViewObjectImpl("OrdersView").getQueryHitCount(work)),
            call("view-in-el",
                 work
                 -> new ValueExpressionImpl("#{outer}")
                        .getValue(() -> new ViewObjectImpl("InnerView").getQueryHitCount(work))),
            call("attribute",
                 work -> new ViewRowImpl().setAttribute(new ViewAttributeDefImpl("OrderTotal"), work)),
            call("entity", work -> new EntityImpl("OrderEntity", work).doDML(1, new TransactionEvent())),
            call("value-el", work -> new ValueExpressionImpl("#{orders.total}").getValue(work)),
            call("method-el", work -> new MethodExpressionImpl("#{orders.save}").invoke(work)),
            call("groovy",
                 work -> new ExprEval(SCRIPT).evaluate(() -> site.callCurrent(() -> site.call(work)))),
            call("compiled-groovy", work -> site.callCurrent(() -> site.call(work))), call("server", work -> {
                ServletRequestImpl[] request = new ServletRequestImpl[1];
                request[0] = new ServletRequestImpl(
                    "/served", () -> new ServletStubImpl().execute(request[0], null, work));
                new ExecuteThread("unused", request[0], false, true).run();
            }), remote());
    }

    /** Waits for the answer of a remote call. */
    private static Resident remote() {
        return new Resident("remote", Thread.State.WAITING, "wait wait0", self -> {
            byte[] address = {(byte)192, (byte)168, 1, 5};
            ResponseImpl response = new ResponseImpl(
                77, new RJVM(new Channel(new InetSocketAddress(InetAddress.getByAddress(address), 7001))));
            self.onRelease(response::arrive);
            return () -> new ClusterableRemoteRef("ejb/Orders").invoke(response);
        });
    }
}
