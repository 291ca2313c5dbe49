// A program that ends at once.
int wmain() {
    return 0;
}
