package tessar.jdbc.driver;

/** A call of a stored procedure; it is executed as its superclass does. */
public class Q5DCallableStatement extends Q5DPreparedStatement {
    public Q5DCallableStatement(Q5DConnection connection, String sql) { super(connection, sql); }
}
