package ferrule.servlet.internal;

public class WebAppServletContext {
    protected String contextName;

    public WebAppServletContext(String name) { contextName = name; }

    public static class ServletInvocationAction {}
}
