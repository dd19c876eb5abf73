// main.cpp - kvane-simulate, stub.
int main() { return 0; }
