package ferrule.work;

public class SelfTuningWorkManagerImpl {
    protected String applicationName = "orders";
    protected String moduleName = "orders.war";
    protected String wmName = "default";
}
