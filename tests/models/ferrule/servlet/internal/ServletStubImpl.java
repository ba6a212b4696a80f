package ferrule.servlet.internal;

import javax.servlet.ServletRequest;
import javax.servlet.ServletResponse;
import qoragent.models.Keep;

public class ServletStubImpl {
    public void execute(ServletRequest request, ServletResponse response, Runnable servlet) {
        servlet.run();
        Keep.alive(this, request, response);
    }
}
