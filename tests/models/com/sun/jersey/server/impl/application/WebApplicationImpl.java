package com.sun.jersey.server.impl.application;

import com.sun.jersey.spi.container.ContainerRequest;
import qoragent.models.Keep;

public class WebApplicationImpl {
    public void handleRequest(ContainerRequest request, Runnable resource) {
        resource.run();
        Keep.alive(this, request);
    }
}
