package org.glassfish.jersey.server.model;

import org.glassfish.jersey.server.ContainerRequest;
import qoragent.models.Keep;

public class ResourceMethodInvoker {
    public void invoke(ContainerRequest request, Runnable resource) {
        resource.run();
        Keep.alive(this, request);
    }
}
