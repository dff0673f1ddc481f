<footer>
  <p>Made with <?= "PHP" ?> &middot; <a href="<?= "index.php" ?>">home</a></p>
</footer>
