package ferrule.rmi.cluster;

public class ReplicaHandler {
    protected String jndiName;

    public ReplicaHandler(String name) { jndiName = name; }
}
