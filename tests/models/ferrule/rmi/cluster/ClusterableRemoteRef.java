package ferrule.rmi.cluster;

import ferrule.rjvm.ResponseImpl;
import qoragent.models.Keep;

public class ClusterableRemoteRef {
    protected ReplicaHandler replicaHandler;

    public ClusterableRemoteRef(String jndiName) { replicaHandler = new ReplicaHandler(jndiName); }

    public void invoke(ResponseImpl response) throws InterruptedException {
        response.waitForData();
        Keep.alive(this, response);
    }
}
