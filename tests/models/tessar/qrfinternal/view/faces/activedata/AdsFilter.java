package tessar.qrfinternal.view.faces.activedata;

import javax.servlet.FilterChain;
import javax.servlet.ServletRequest;
import javax.servlet.ServletResponse;
import qoragent.models.Keep;

public class AdsFilter {
    public void doFilter(ServletRequest request, ServletResponse response, FilterChain chain) {
        chain.doFilter(request, response);
        Keep.alive(this, request, response, chain);
    }
}
