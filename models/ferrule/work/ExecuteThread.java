package ferrule.work;

import qoragent.models.Keep;

public class ExecuteThread extends Thread {
    protected boolean stuckThread;
    protected boolean isHogger;
    protected SelfTuningWorkManagerImpl workManager;
    private final Runnable work;

    public ExecuteThread(String name, Runnable work, boolean stuck, boolean hogger) {
        super(name);
        this.work = work;
        stuckThread = stuck;
        isHogger = hogger;
        workManager = new SelfTuningWorkManagerImpl();
    }

    @Override
    public void run() {
        execute(work);
        Keep.alive(this);
    }

    public void execute(Runnable request) {
        request.run();
        Keep.alive(this, request);
    }
}
