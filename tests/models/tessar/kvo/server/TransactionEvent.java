package tessar.kvo.server;

public class TransactionEvent {}
