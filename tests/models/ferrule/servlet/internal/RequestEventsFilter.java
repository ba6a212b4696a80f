package ferrule.servlet.internal;

import javax.servlet.ServletRequest;
import javax.servlet.ServletRequestWrapper;

public class RequestEventsFilter {
    public static class EventsRequestWrapper extends ServletRequestWrapper {
        public EventsRequestWrapper(ServletRequest request) { super(request); }
    }
}
