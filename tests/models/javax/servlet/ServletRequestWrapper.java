package javax.servlet;

public class ServletRequestWrapper implements ServletRequest {
    private final ServletRequest request;

    public ServletRequestWrapper(ServletRequest request) { this.request = request; }

    public ServletRequest getRequest() { return request; }
}
