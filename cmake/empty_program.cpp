// What a layer is linked into to see whether it gets along with those before it.
int main()
{
    return 0;
}
