package tessar.jdbc.driver;

import tessar.jdbc.dbaccess.DBAccess;

/** A connection of the driver's first generation. */
public class TessarConnection {
    String url;
    String user;
    DBAccess db_access;

    public TessarConnection(String url, String user, DBAccess access) {
        this.url = url;
        this.user = user;
        db_access = access;
    }
}
