// What every program of this tool chain needs to start and to end, and nothing else.
int wmain() {
    return 0;
}
