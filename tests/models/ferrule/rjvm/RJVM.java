package ferrule.rjvm;

import ferrule.rmi.spi.Channel;

public class RJVM {
    protected Channel remoteChannel;

    public RJVM(Channel channel) { remoteChannel = channel; }
}
