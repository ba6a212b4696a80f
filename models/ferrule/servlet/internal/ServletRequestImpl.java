package ferrule.servlet.internal;

import javax.servlet.http.HttpServletRequest;
import qoragent.models.Keep;

public class ServletRequestImpl implements HttpServletRequest, Runnable {
    protected String servletPath;
    protected String originalURI;
    protected String relativeURI;
    protected WebAppServletContext context;
    protected SessionHelper sessionHelper;
    private final Runnable servlet;

    public ServletRequestImpl(String path, Runnable servlet) {
        servletPath = path;
        originalURI = "/original" + path;
        relativeURI = path;
        context = new WebAppServletContext("/context");
        sessionHelper = new SessionHelper("session of " + path);
        this.servlet = servlet;
    }

    @Override
    public void run() {
        servlet.run();
        Keep.alive(this);
    }

    public void execute() {
        servlet.run();
        Keep.alive(this);
    }

    public void service() {
        servlet.run();
        Keep.alive(this);
    }

    public static class SessionHelper {
        protected String sessionID;

        public SessionHelper(String id) { sessionID = id; }
    }
}
