package tessar.jdbc.driver;

import java.io.IOException;

/** A prepared statement of the second generation; its versions hold the connection in one of two fields. */
public class Q5DPreparedStatement extends TessarStatement {
    PhysicalConnection connection;
    Q5DConnection q5Connection;

    public Q5DPreparedStatement(PhysicalConnection connection, String sql) {
        super(null, sql);
        this.connection = connection;
        if (connection instanceof Q5DConnection)
            ((Q5DConnection)connection).statements = this;
    }

    public Q5DPreparedStatement(Q5DConnection connection, String sql) {
        super(null, sql);
        q5Connection = connection;
        connection.statements = this;
    }

    /** Waits for the server. */
    @Override
    public long executeQuery() throws IOException {
        (connection == null ? q5Connection : connection).fetch();
        return ++executions;
    }
}
