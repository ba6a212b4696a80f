package javax.servlet.http;

import javax.servlet.ServletRequest;
import javax.servlet.ServletResponse;
import qoragent.models.Keep;

public abstract class HttpServlet {
    public void service(ServletRequest request, ServletResponse response) {
        serve(request, response);
        Keep.alive(this, request, response);
    }

    protected abstract void serve(ServletRequest request, ServletResponse response);
}
